// What dmctl reads of a machine, and how it keeps the stand-in equal to it.
//
// Machines are folders with files as the kernel would show them; the stand-in
// is the real one, reached over its control socket.
#include "standin/scenario.h"
#include "tests/support/standin_socket.h"
#include "tools/dmctl/host_mirror.h"

#include <filesystem>
#include <fstream>

namespace qdb
{

namespace
{

// With the members in a fixed order.
std::string Sorted(const json_t *value)
{
    return value == nullptr ? "(none)"
                            : Dump(value, JSON_COMPACT | JSON_SORT_KEYS);
}

// A machine of files.
class FakeMachine : public test::TempRoot
{
  public:
    void Write(const std::string &path, const std::string &content) const
    {
        const std::filesystem::path file = Path() + path;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << content;
    }

    void Remove(const std::string &path) const
    {
        std::filesystem::remove_all(Path() + path);
    }
};

// All but the system itself, "type key values" each.
std::string Listing(Host &host, time_t now)
{
    std::string listing;
    for (const HostObject &object : host.Look(now))
    {
        if (object.oid != kFirstHostOid)
        {
            listing += object.key + ' ' + Sorted(object.values.get()) + '\n';
        }
    }
    return listing;
}

TEST(Host, HoldsWhatTheMachineShows)
{
    const std::string pci = "/sys/bus/pci/devices/0000:3b:00.1/";
    const std::string odd = std::string(31, 'm'); // and half a character
    const struct
    {
        const char *name;
        std::vector<std::pair<std::string, std::string>> files;
        std::string expected;
    } cases[] = {
        // clang-format off
        {"two threads of one core",
         {{"/proc/cpuinfo", "processor\t: 0\nphysical id\t: 1\ncore id\t: 7\nmodel name\t: M\n\n"
                            "processor\t: 1\nphysical id\t: 1\ncore id\t: 7\n\n"}},
         R"(D2||Host.CPU.1 {"Key":"D2||Host.CPU.1","NumberOfProcessorCores":1,"NumberofEnabledThreads":2,)"
         R"("ProductName":"M","fqdd":"Host.CPU.1","friendlyFQDD":"Host.CPU.1"})" "\n"},
        {"garbage for processors and counters",
         {{"/proc/cpuinfo", ":\n: x\n\n\nprocessor\n\n\xff\xfe:"}, {"/proc/stat", "cpu x\n"}}, ""},
        {"PCI device",
         {{pci + "vendor", "0x1af4\n"}, {pci + "revision", "no number"}, {pci + "max_link_width", "999\n"},
          {"/sys/bus/pci/devices/strange/device", "0x1\n"}},
         R"(E6||Host.PCI.0000:3b:00.1 {"Key":"E6||Host.PCI.0000:3b:00.1","fqdd":"Host.PCI.0000:3b:00.1",)"
         R"("friendlyFQDD":"0000:3b:00.1","maxLinkWidth":255,"vendorID":6900})" "\n"},
        {"disk with odd texts",
         {{"/sys/block/sda/size", "9223372036854775807\n"}, {"/sys/block/sda/device/uevent", "DRIVER=sd\n"},
          {"/sys/block/sda/device/model", odd + "\u00e4xyz"}, {"/sys/block/sda/device/serial", "A\xff" "B"},
          {"/sys/block/loop3/size", "8\n"}},
         R"(304||Host.Disk.sda {"fqdd":"Host.Disk.sda","hdr_DOT_objName":"sda","modelName":")" + odd +
         R"(","serialNumber":"A?B","size":9223372036854775296,"uSiObj_DOT_sbSiObj_DOT_BSInfo_DOT_FQDD":"Host.Disk.sda",)"
         R"("uSiObj_DOT_sbSiObj_DOT_BSInfo_DOT_Key":"304||Host.Disk.sda"})" "\n"},
        {"temperature, and a sensor without a reading",
         {{"/sys/class/hwmon/hwmon0/temp1_input", "-45300\n"}, {"/sys/class/hwmon/hwmon0/temp1_crit", "100000\n"},
          {"/sys/class/hwmon/hwmon0/temp1_label", "Core 0\n"}, {"/sys/class/hwmon/hwmon0/temp2_input", ""}},
         R"(16||Host.Temp.hwmon0.temp1 {"FriendlyFQDD":"Host.Temp.hwmon0.temp1","Key":"16||Host.Temp.hwmon0.temp1",)"
         R"("ProbeLocation":"Core 0","probeReading":-453,"probeThresholds_DOT_ucThreshold":1000,"unitModifier":1})" "\n"},
        // clang-format on
    };
    for (const auto &test : cases)
    {
        SCOPED_TRACE(test.name);
        const FakeMachine machine;
        for (const auto &[path, content] : test.files)
        {
            machine.Write(path, content);
        }
        Host host(machine.Path());
        EXPECT_EQ(Listing(host, 1), test.expected);
    }
}

TEST(Host, TellsTheLoadOfTheLastHour)
{
    const FakeMachine machine;
    Host host(machine.Path());
    const auto look = [&](time_t now, const char *ticks)
    {
        machine.Write("/proc/stat", std::string("cpu ") + ticks);
        return Listing(host, now);
    };
    const auto usage = [](int average, int least, int most)
    {
        return R"(39||Host.Usage.CPU {"Key":"39||Host.Usage.CPU","averageLastHour":)" +
               std::to_string(average) + R"(,"maxLastHour":)" +
               std::to_string(most) + R"(,"minLastHour":)" +
               std::to_string(least) + R"(,"peakUtilization":)" +
               std::to_string(most) + "}\n";
    };
    // User, nice, system, idle, iowait, and two of which one counts twice.
    EXPECT_EQ(look(100, "90 0 0 5 5"), usage(90, 90, 90));
    EXPECT_EQ(look(110, "95 1 4 95 5 0 0 0 50"), usage(50, 10, 90));
    EXPECT_EQ(look(3700, "95 1 4 95 5 0 0 0 60"), usage(5, 0, 10));
    EXPECT_EQ(look(3800, ""), "");
}

// --- Against the stand-in --------------------------------------------------

class MirrorTest : public test::StandinSocketTest
{
  protected:
    static std::string Value(uint32_t oid, const char *column)
    {
        const Json reply = Client(Socket()).Call(
            Json(json_pack("{s:s,s:I}", "op", "show", "oid", json_int_t{oid})));
        return Sorted(
            json_object_get(json_object_get(reply.get(), "values"), column));
    }
};

// An entry that the stand-in refuses is told, and left out of the demo.
TEST_F(MirrorTest, TheScenarioIsAcceptedWhole)
{
    const char *path = getenv("QDB_TEST_SCENARIO");
    ASSERT_NE(path, nullptr);
    testing::internal::CaptureStderr();
    standin::LoadScenario(path);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_FALSE(standin::ObjectIds().empty());
}

TEST_F(MirrorTest, FollowsTheMachine)
{
    const FakeMachine machine;
    Host host(machine.Path());
    Client client(Socket());
    HostMirror mirror(client);
    const auto update = [&]
    {
        return mirror.Update(host.Look(1));
    };

    machine.Write("/sys/block/sda/device/uevent", "DRIVER=sd");
    machine.Write("/sys/block/sda/size", "2");
    machine.Write("/sys/block/sda/device/model", "M");
    EXPECT_TRUE(update().empty());
    const uint32_t disk = kFirstHostOid + 1;
    EXPECT_EQ(Value(disk, "size"), "1024");

    machine.Write("/sys/block/sda/size", "4");
    machine.Remove("/sys/block/sda/device/model");
    EXPECT_TRUE(update().empty());
    EXPECT_EQ(Value(disk, "size"), "2048");
    EXPECT_EQ(Value(disk, "modelName"), "(none)");

    // Somebody else removes it: said once, and then it comes back.
    EXPECT_EQ(standin::DeleteObjects({&disk, 1}), "");
    EXPECT_TRUE(update().empty());
    machine.Write("/sys/block/sda/size", "6");
    EXPECT_EQ(update().size(), 1u);
    EXPECT_TRUE(update().empty());
    EXPECT_EQ(Value(disk, "size"), "3072");

    machine.Remove("/sys/block/sda");
    EXPECT_TRUE(update().empty());
    EXPECT_EQ(standin::ObjectIds(), std::vector<uint32_t>{kFirstHostOid});
}

TEST_F(MirrorTest, RemovesOnlyWhatAnEarlierRunHasLeft)
{
    for (const uint32_t oid : {kFirstHostOid - 1, kFirstHostOid,
                               kBehindHostOids - 1, kBehindHostOids})
    {
        ASSERT_EQ(standin::CreateObject({.type = 0x16, .oid = oid}), "");
    }
    Client client(Socket());
    const HostMirror mirror(client);
    EXPECT_EQ(standin::ObjectIds(),
              (std::vector<uint32_t>{kFirstHostOid - 1, kBehindHostOids}));
}

TEST_F(MirrorTest, ThisMachineIsAccepted)
{
    Host host;
    const std::vector<HostObject> objects = host.Look(1);
    Client client(Socket());
    HostMirror mirror(client);
    EXPECT_EQ(mirror.Update(objects), std::vector<std::string>());
    EXPECT_EQ(standin::ObjectIds().size(), objects.size());
}

} // namespace

} // namespace qdb

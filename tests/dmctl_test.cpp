// dmctl: what it reads of a machine, and how it keeps the stand-in equal to it.
//
// Machines are folders with files as the kernel would show them; the stand-in
// is the real one, reached over its control socket.
#include "platform/zoil.h"
#include "standin/standin.h"
#include "tests/support/standin_socket.h"
#include "tests/support/temp_root.h"
#include "tests/support/wait.h"
#include "tools/dmctl/client.h"
#include "tools/dmctl/commands.h"
#include "tools/dmctl/host_mirror.h"
#include "tools/dmctl/host_objects.h"
#include "tools/dmctl/host_usage.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

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

TEST(HostView, HoldsWhatTheMachineShows)
{
    const std::string pci = "/sys/bus/pci/devices/0000:3b:00.1/";
    const std::string odd = std::string(30, 'm') + "\u00e4";
    const struct
    {
        const char *name;
        std::vector<std::pair<std::string, std::string>> files;
        void (*collect)(HostView &);
        std::string expected;
    } cases[] = {
        // clang-format off
        {"two threads of one core",
         {{"/proc/cpuinfo", "processor\t: 0\nphysical id\t: 1\ncore id\t: 7\nflags\t\t: fpu ht nx\n\n"
                            "processor\t: 1\nphysical id\t: 1\ncore id\t: 7\n\n"}},
         CollectProcessors,
         R"(D2||Host.CPU.2 {"Key":"D2||Host.CPU.2","NumberOfProcessorCores":1,"NumberofEnabledCores":1,)"
         R"("NumberofEnabledThreads":2,"executeDisableCapable":1,"executeDisableEnabled":1,"fqdd":"Host.CPU.2",)"
         R"("friendlyFQDD":"CPU 2","hyperThreadingCapable":1,"hyperThreadingEnabled":1,"virtualizationTechCapable":0})"},
        {"garbage for processors",
         {{"/proc/cpuinfo", ":\n: x\n\n\nprocessor\n\n\xff\xfe:"}}, CollectProcessors, ""},
        {"PCI device",
         {{pci + "vendor", "0x1af4\n"}, {pci + "class", "0x010802\n"}, {pci + "revision", "no number"},
          {"/sys/bus/pci/devices/strange/vendor", "0x1\n"}},
         CollectPciDevices,
         R"(E6||Host.PCI.0000:3b:00.1 {"Key":"E6||Host.PCI.0000:3b:00.1","busNum":59,"classCode":1,)"
         R"("description":"Mass storage controller","deviceNum":0,"fqdd":"Host.PCI.0000:3b:00.1",)"
         R"("friendlyFQDD":"PCI device 0000:3b:00.1","functionNum":1,"progIF":2,"subclass":8,"vendorID":6900})"},
        {"disk with odd texts",
         {{"/sys/block/sda/size", "9223372036854775807\n"}, {"/sys/block/sda/device/model", odd + "xyz"},
          {"/sys/block/sda/device/serial", "A\xff" "B"}, {"/sys/block/zram0/size", "8\n"}, {"/sys/block/loop3/size", "8\n"}},
         CollectDisks,
         R"(304||Host.Disk.sda {"fqdd":"Host.Disk.sda","hdr_DOT_objName":"sda","modelName":")" + odd +
         R"(","serialNumber":"A?B","size":9223372036854775296,"uSiObj_DOT_sbSiObj_DOT_BSInfo_DOT_FQDD":"Host.Disk.sda",)"
         R"("uSiObj_DOT_sbSiObj_DOT_BSInfo_DOT_Key":"304||Host.Disk.sda"})"},
        {"chips before zones",
         {{"/sys/class/hwmon/hwmon0/name", "coretemp\n"}, {"/sys/class/hwmon/hwmon0/temp1_input", "-45300\n"},
          {"/sys/class/hwmon/hwmon0/temp1_crit", "100000\n"}, {"/sys/class/hwmon/hwmon0/temp2_input", ""},
          {"/sys/class/thermal/thermal_zone0/temp", "45000\n"}},
         CollectTemperatures,
         R"(16||Host.Temp.hwmon0.temp1 {"FriendlyFQDD":"Host.Temp.hwmon0.temp1","Key":"16||Host.Temp.hwmon0.temp1",)"
         R"("ProbeLocation":"coretemp temp1","probeReading":-453,"probeThresholds_DOT_ucThreshold":1000,"unitModifier":1})"},
        {"zones without chips",
         {{"/sys/class/thermal/thermal_zone0/temp", "45000\n"}, {"/sys/class/thermal/thermal_zone0/type", "acpitz\n"},
          {"/sys/class/thermal/cooling_device0/type", "Fan\n"}},
         CollectTemperatures,
         R"(16||Host.Temp.thermal_zone0 {"FriendlyFQDD":"Host.Temp.thermal_zone0","Key":"16||Host.Temp.thermal_zone0",)"
         R"("ProbeLocation":"acpitz","probeReading":450,"unitModifier":1})"},
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
        const HostFiles files(machine.Path());
        HostView view(files);
        test.collect(view);
        std::string listing;
        for (const HostObject &object : view.Objects())
        {
            listing += object.key + ' ' + Sorted(object.values.get());
        }
        EXPECT_EQ(listing, test.expected);
    }
}

TEST(UsageWindow, ForgetsWhatHasLeftIt)
{
    UsageWindow window(3, 10);
    EXPECT_EQ(window.Average(), 0);
    window.Add(100, 90);
    window.Add(105, 10);
    window.Add(112, 20);
    EXPECT_EQ(window.Average(), 40);
    EXPECT_EQ(window.Most().percent, 90);
    EXPECT_EQ(window.Most().time, 100);
    EXPECT_EQ(window.Least().percent, 10);
    EXPECT_EQ(window.History(), (std::vector<uint16_t>{50, 0, 0}));

    window.Add(151, 30); // the first bucket has left
    EXPECT_EQ(window.Most().percent, 30);
    window.Add(90, 50); // the clock was set back
    EXPECT_EQ(window.Average(), 40);
    EXPECT_EQ(window.Most().percent, 50);
    EXPECT_EQ(window.History(), (std::vector<uint16_t>{0, 0, 0}));
}

TEST(Assignments, AreJsonOrText)
{
    EXPECT_EQ(Sorted(ParseAssignments({"a=1", "b=x=y", "c=[1,2]", "d=\"7\"",
                                       "e=", "f=0x16", "g=null"})
                         .get()),
              "{\"a\":1,\"b\":\"x=y\",\"c\":[1,2],\"d\":\"7\",\"e\":\"\","
              "\"f\":\"0x16\",\"g\":null}");
    for (const char *wrong : {"", "a", "=1", "a=\xff"})
    {
        EXPECT_THROW(ParseAssignments({wrong}), std::invalid_argument);
    }
}

// --- Against the stand-in --------------------------------------------------

class MirrorTest : public test::StandinSocketTest
{
  protected:
    static std::string Value(uint32_t oid, const char *column)
    {
        Client client(Socket());
        const Json request = Operation("show");
        Put(request, "oid", Number(oid));
        const Json reply = client.Call(request);
        return Sorted(
            json_object_get(json_object_get(reply.get(), "values"), column));
    }
};

// An entry that the stand-in refuses is left out of the demo.
TEST_F(MirrorTest, TheScenarioIsAcceptedWhole)
{
    const char *path = getenv("QDB_TEST_SCENARIO");
    ASSERT_NE(path, nullptr);
    json_error_t error;
    const Json scenario(json_load_file(path, 0, &error));
    ASSERT_NE(scenario, nullptr) << error.text;
    size_t expected = 0;
    size_t index;
    json_t *entry;
    json_array_foreach(json_object_get(scenario.get(), "objects"), index, entry)
    {
        expected += json_object_get(entry, "repeat") == nullptr
                        ? 1
                        : NumberOf(entry, "repeat");
    }
    EXPECT_EQ(Loaded(), expected);
}

TEST_F(MirrorTest, FollowsTheMachine)
{
    const FakeMachine machine;
    const HostFiles files(machine.Path());
    HostView view(files);
    Client client(Socket());
    HostMirror mirror(client);
    const auto update = [&]
    {
        view.Begin();
        CollectDisks(view);
        return mirror.Update(view.Objects());
    };

    machine.Write("/sys/block/sda/size", "2");
    machine.Write("/sys/block/sda/device/model", "M");
    EXPECT_TRUE(update().empty());
    const std::vector<uint32_t> oids = standin::ObjectIds();
    ASSERT_EQ(oids.size(), 1u);
    EXPECT_EQ(Value(oids[0], "size"), "1024");

    machine.Write("/sys/block/sda/size", "4");
    machine.Remove("/sys/block/sda/device/model");
    EXPECT_TRUE(update().empty());
    EXPECT_EQ(Value(oids[0], "size"), "2048");
    EXPECT_EQ(Value(oids[0], "modelName"), "(none)");

    // Somebody else removes it: said once, and then it comes back.
    EXPECT_EQ(standin::DeleteObjects(oids), "");
    EXPECT_TRUE(update().empty());
    machine.Write("/sys/block/sda/size", "6");
    EXPECT_EQ(update().size(), 1u);
    EXPECT_TRUE(update().empty());
    EXPECT_EQ(Value(oids[0], "size"), "3072");

    machine.Remove("/sys/block/sda");
    EXPECT_TRUE(update().empty());
    EXPECT_TRUE(standin::ObjectIds().empty());
}

TEST_F(MirrorTest, RemovesOnlyWhatAnEarlierRunHasLeft)
{
    for (const uint32_t oid : {kFirstHostOid - 1, kFirstHostOid,
                               kBehindHostOids - 1, kBehindHostOids})
    {
        standin::ObjectSpec spec;
        spec.type = 0x16;
        spec.oid = oid;
        ASSERT_EQ(standin::CreateObject(spec), "");
    }
    Client client(Socket());
    const HostMirror mirror(client);
    EXPECT_EQ(standin::ObjectIds(),
              (std::vector<uint32_t>{kFirstHostOid - 1, kBehindHostOids}));
}

TEST_F(MirrorTest, ThisMachineIsAccepted)
{
    const HostFiles files;
    HostView view(files);
    UsageHistory history;
    CollectSystem(view, 1);
    CollectProcessors(view);
    CollectPciDevices(view);
    CollectInterfaces(view);
    CollectUsage(view, history, 1);
    CollectDisks(view);
    CollectTemperatures(view);
    Client client(Socket());
    HostMirror mirror(client);
    EXPECT_EQ(mirror.Update(view.Objects()), std::vector<std::string>());
    EXPECT_EQ(standin::ObjectIds().size(), view.Objects().size());
}

TEST_F(MirrorTest, DelaysAreSetAndReleased)
{
    Client client(Socket());
    const auto run = [&](const std::string &arguments)
    {
        CLI::App app;
        Invocation invocation;
        AddManagerCommands(app, &invocation);
        app.parse(arguments);
        testing::internal::CaptureStdout();
        try
        {
            invocation.run(client, invocation);
        }
        catch (const Refused &)
        {
            return testing::internal::GetCapturedStdout() + "refused";
        }
        return testing::internal::GetCapturedStdout();
    };
    EXPECT_EQ(run("measure on"), "");
    EXPECT_EQ(run("delay ZOILListParentOID hang --late --oid 0x7001"), "");
    EXPECT_EQ(run("delay vexoprintf 5 --random --skip 2 --times 1 --text x"),
              "");
    EXPECT_EQ(run("delay ZOFreeMem 5 --oid 1"), "refused");
    std::thread caller(
        []
        {
            const uint32_t oid = 0x7001;
            ZOILFreeGeneric(ZOILListParentOID(&oid));
        });
    EXPECT_TRUE(test::WaitUntil(
        [&]
        {
            return run("hanging ZOILListParentOID") == "1\n";
        }));
    EXPECT_EQ(run("release"), "");
    caller.join();
    EXPECT_EQ(run("hanging ZOILListParentOID"), "0\n");
    EXPECT_EQ(run("cost").find("calls 1\ncpuNanoseconds "), 0u);
    EXPECT_EQ(run("measure off"), "");
}

TEST_F(MirrorTest, AuditsWhatItCanRead)
{
    const FakeMachine folder;
    folder.MakeDatabase();
    folder.Write("/text.db", std::string(5000, 'x'));
    Client client(Socket());
    Invocation invocation;
    CLI::App app;
    AddAuditCommand(app, &invocation);
    const auto audit = [&](const std::string &database)
    {
        app.parse("audit --database " + database);
        testing::internal::CaptureStdout();
        try
        {
            invocation.run(client, invocation);
        }
        catch (const CannotLook &)
        {
            return testing::internal::GetCapturedStdout() + "can't look";
        }
        return testing::internal::GetCapturedStdout();
    };
    EXPECT_EQ(audit(folder.Database()), "0 differences in 0 objects\n");
    // A Data Manager that isn't ready has nothing to mirror.
    EXPECT_EQ(standin::GenerateObjects(1, {}, false), "");
    standin::Detach();
    EXPECT_EQ(audit(folder.Database()), "0 differences in 0 objects\n");
    for (const char *path : {"/missing.db", "/text.db"})
    {
        EXPECT_EQ(audit(folder.Path() + path), "can't look");
    }
}

} // namespace

} // namespace qdb

// dmctl: what it reads of a machine, how it keeps the stand-in equal to it, and
// how it plays the configuration manager.
//
// Machines are folders with files as the kernel would show them; the stand-in
// is the real one, reached over its control socket.
#include "platform/standin/standin.h"
#include "tests/support/private_bus.h"
#include "tests/support/wait.h"
#include "tools/dmctl/client.h"
#include "tools/dmctl/commands.h"
#include "tools/dmctl/host_mirror.h"
#include "tools/dmctl/host_objects.h"
#include "tools/dmctl/host_usage.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <utility>

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

// A machine of files, removed at the end.
class FakeMachine
{
  public:
    FakeMachine()
    {
        char path[] = "/tmp/dmctl_test.XXXXXX";
        mRoot = mkdtemp(path);
    }
    FakeMachine(const FakeMachine &) = delete;
    FakeMachine &operator=(const FakeMachine &) = delete;
    ~FakeMachine()
    {
        std::filesystem::remove_all(mRoot);
    }

    void Write(const std::string &path, const std::string &content) const
    {
        const std::filesystem::path file = mRoot + path;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << content;
    }

    void Remove(const std::string &path) const
    {
        std::filesystem::remove_all(mRoot + path);
    }

    const std::string &Root() const
    {
        return mRoot;
    }

  private:
    std::string mRoot;
};

// "key values" of each object, one per line.
std::string Listing(const HostView &view)
{
    std::string listing;
    for (const HostObject &object : view.Objects())
    {
        listing += object.key + ' ' + Sorted(object.values.get()) + '\n';
    }
    return listing;
}

struct MachineCase
{
    const char *name;
    std::vector<std::pair<std::string, std::string>> files;
    void (*collect)(HostView &);
    std::string expected;
};

void PrintTo(const MachineCase &machine, std::ostream *stream)
{
    *stream << machine.name;
}

class MachineTest : public testing::TestWithParam<MachineCase>
{
};

TEST_P(MachineTest, GivesItsObjects)
{
    const FakeMachine machine;
    for (const auto &[path, content] : GetParam().files)
    {
        machine.Write(path, content);
    }
    const HostFiles files(machine.Root());
    HostView view(files);
    GetParam().collect(view);
    EXPECT_EQ(Listing(view), GetParam().expected);
}

const std::string kPci = "/sys/bus/pci/devices/0000:3b:00.1/";

INSTANTIATE_TEST_SUITE_P(
    Kinds, MachineTest,
    testing::Values(
        MachineCase{"NothingAtAll",
                    {},
                    [](HostView &view)
                    {
                        CollectProcessors(view);
                        CollectPciDevices(view);
                        CollectDisks(view);
                        CollectTemperatures(view);
                    },
                    ""},
        MachineCase{
            "TwoThreadsOfOneCore",
            {{"/proc/cpuinfo",
              "processor\t: 0\nphysical id\t: 1\ncore id\t: 7\n"
              "flags\t\t: fpu ht nx\n\n"
              "processor\t: 1\nphysical id\t: 1\n"
              "core id\t: 7\n\n"}},
            CollectProcessors,
            "D2||Host.CPU.2 {\"Key\":\"D2||Host.CPU.2\","
            "\"NumberOfProcessorCores\":1,\"NumberofEnabledCores\":1,"
            "\"NumberofEnabledThreads\":2,\"executeDisableCapable\":1,"
            "\"executeDisableEnabled\":1,\"fqdd\":\"Host.CPU.2\","
            "\"friendlyFQDD\":\"CPU 2\",\"hyperThreadingCapable\":1,"
            "\"hyperThreadingEnabled\":1,\"virtualizationTechCapable\":0}\n"},
        MachineCase{"GarbageForProcessors",
                    {{"/proc/cpuinfo", ":\n: x\n\n\nprocessor\n\n\xff\xfe:"}},
                    CollectProcessors,
                    ""},
        MachineCase{
            "PciDevice",
            {{kPci + "vendor", "0x1af4\n"},
             {kPci + "class", "0x010802\n"},
             {kPci + "revision", "no number"},
             {"/sys/bus/pci/devices/strange/vendor", "0x1\n"}},
            CollectPciDevices,
            "E6||Host.PCI.0000:3b:00.1 {\"Key\":\"E6||Host.PCI.0000:3b:00.1\","
            "\"busNum\":59,\"classCode\":1,"
            "\"description\":\"Mass storage controller\",\"deviceNum\":0,"
            "\"fqdd\":\"Host.PCI.0000:3b:00.1\","
            "\"friendlyFQDD\":\"PCI device 0000:3b:00.1\",\"functionNum\":1,"
            "\"progIF\":2,\"subclass\":8,\"vendorID\":6900}\n"},
        MachineCase{
            "DiskWithOddTexts",
            {{"/sys/block/sda/size", "9223372036854775807\n"},
             {"/sys/block/sda/device/model",
              std::string(30, 'm') + "\u00e4xyz"},
             {"/sys/block/sda/device/serial", "A\xff"
                                              "B"},
             {"/sys/block/zram0/size", "8\n"},
             {"/sys/block/loop3/size", "8\n"}},
            CollectDisks,
            "304||Host.Disk.sda {\"fqdd\":\"Host.Disk.sda\","
            "\"hdr_DOT_objName\":\"sda\",\"modelName\":\"" +
                std::string(30, 'm') +
                "\u00e4\",\"serialNumber\":\"A?B\","
                "\"size\":9223372036854775296,"
                "\"uSiObj_DOT_sbSiObj_DOT_BSInfo_DOT_FQDD\":\"Host.Disk.sda\","
                "\"uSiObj_DOT_sbSiObj_DOT_BSInfo_DOT_Key\":"
                "\"304||Host.Disk.sda\"}\n"},
        MachineCase{
            "ChipsBeforeZones",
            {{"/sys/class/hwmon/hwmon0/name", "coretemp\n"},
             {"/sys/class/hwmon/hwmon0/temp1_input", "-45300\n"},
             {"/sys/class/hwmon/hwmon0/temp1_crit", "100000\n"},
             {"/sys/class/hwmon/hwmon0/temp2_input", ""},
             {"/sys/class/thermal/thermal_zone0/temp", "45000\n"}},
            CollectTemperatures,
            "16||Host.Temp.hwmon0.temp1 {"
            "\"FriendlyFQDD\":\"Host.Temp.hwmon0.temp1\","
            "\"Key\":\"16||Host.Temp.hwmon0.temp1\","
            "\"ProbeLocation\":\"coretemp temp1\",\"probeReading\":-453,"
            "\"probeThresholds_DOT_ucThreshold\":1000,\"unitModifier\":1}\n"},
        MachineCase{"ZonesWithoutChips",
                    {{"/sys/class/thermal/thermal_zone0/temp", "45000\n"},
                     {"/sys/class/thermal/thermal_zone0/type", "acpitz\n"},
                     {"/sys/class/thermal/cooling_device0/type", "Fan\n"}},
                    CollectTemperatures,
                    "16||Host.Temp.thermal_zone0 {"
                    "\"FriendlyFQDD\":\"Host.Temp.thermal_zone0\","
                    "\"Key\":\"16||Host.Temp.thermal_zone0\","
                    "\"ProbeLocation\":\"acpitz\",\"probeReading\":450,"
                    "\"unitModifier\":1}\n"}),
    [](const testing::TestParamInfo<MachineCase> &machine)
    {
        return machine.param.name;
    });

TEST(HostView, KeepsAnOidWhileOthersComeAndGo)
{
    const FakeMachine machine;
    machine.Write("/sys/block/sda/size", "1");
    machine.Write("/sys/block/sdb/size", "1");
    const HostFiles files(machine.Root());
    HostView view(files);
    CollectDisks(view);
    ASSERT_EQ(view.Objects().size(), 2u);
    const uint32_t oid = view.Objects()[1].oid;

    machine.Remove("/sys/block/sda");
    view.Begin();
    CollectDisks(view);
    ASSERT_EQ(view.Objects().size(), 1u);
    EXPECT_EQ(view.Objects()[0].oid, oid);
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

class DmctlTest : public testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        gFolder = new FakeMachine;
        setenv("QDB_STANDIN_SOCKET", (gFolder->Root() + "/socket").c_str(), 1);
        const char *scenario = getenv("QDB_TEST_SCENARIO");
        setenv("QDB_STANDIN_SCENARIO", scenario == nullptr ? "" : scenario, 1);
        gLoaded = standin::ObjectIds().size(); // also opens the socket
    }

    static void TearDownTestSuite()
    {
        delete gFolder;
    }

    void SetUp() override
    {
        standin::Reset();
    }

    static std::string Value(uint32_t oid, const char *column)
    {
        Client client(gFolder->Root() + "/socket");
        const Json request = Operation("show");
        Put(request, "oid", Number(oid));
        const Json reply = client.Call(request);
        return Sorted(
            json_object_get(json_object_get(reply.get(), "values"), column));
    }

    static inline FakeMachine *gFolder;
    static inline size_t gLoaded; // objects of the demo's scenario
};

// An entry that the stand-in refuses is left out of the demo.
TEST_F(DmctlTest, TheScenarioIsAcceptedWhole)
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
    EXPECT_EQ(gLoaded, expected);
}

TEST_F(DmctlTest, FollowsTheMachine)
{
    const FakeMachine machine;
    const HostFiles files(machine.Root());
    HostView view(files);
    Client client(gFolder->Root() + "/socket");
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

TEST_F(DmctlTest, RemovesOnlyWhatAnEarlierRunHasLeft)
{
    for (const uint32_t oid : {kFirstHostOid - 1, kFirstHostOid,
                               kBehindHostOids - 1, kBehindHostOids})
    {
        standin::ObjectSpec spec;
        spec.type = 0x16;
        spec.oid = oid;
        ASSERT_EQ(standin::CreateObject(spec), "");
    }
    Client client(gFolder->Root() + "/socket");
    const HostMirror mirror(client);
    EXPECT_EQ(standin::ObjectIds(),
              (std::vector<uint32_t>{kFirstHostOid - 1, kBehindHostOids}));
}

TEST_F(DmctlTest, ThisMachineIsAccepted)
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
    Client client(gFolder->Root() + "/socket");
    HostMirror mirror(client);
    EXPECT_EQ(mirror.Update(view.Objects()), std::vector<std::string>());
    EXPECT_EQ(standin::ObjectIds().size(), view.Objects().size());
}

// --- The configuration manager ---------------------------------------------

// A run of the program, whose standard output and error are one text.
class Dmctl
{
  public:
    explicit Dmctl(const std::string &arguments)
    {
        const char *program = getenv("QDB_TEST_DMCTL");
        EXPECT_NE(program, nullptr);
        const std::string command = std::string("echo $$; exec '") +
                                    (program == nullptr ? "" : program) + "' " +
                                    arguments + " 2>&1";
        mOutput = popen(command.c_str(), "r");
        mPid = std::stoi(Line());
    }

    Dmctl(const Dmctl &) = delete;
    Dmctl &operator=(const Dmctl &) = delete;

    ~Dmctl()
    {
        if (mOutput != nullptr)
        {
            Signal(SIGKILL);
            pclose(mOutput);
        }
    }

    std::string Line()
    {
        std::string line;
        for (int c = fgetc(mOutput); c != EOF; c = fgetc(mOutput))
        {
            line += static_cast<char>(c);
            if (c == '\n')
            {
                break;
            }
        }
        return line;
    }

    // The rest of the output, and "exit N" behind it unless N is 0.
    std::string End()
    {
        std::string text;
        for (std::string line = Line(); !line.empty(); line = Line())
        {
            text += line;
        }
        const int status = pclose(mOutput);
        mOutput = nullptr;
        return status == 0 ? text
                           : text + "exit " +
                                 std::to_string(WEXITSTATUS(status)) + '\n';
    }

    void Signal(int number) const
    {
        kill(mPid, number);
    }

  private:
    FILE *mOutput = nullptr;
    pid_t mPid = 0;
};

// The next value of a message; "" at the end of a container.
std::string NextValue(sd_bus_message *message)
{
    char type = 0;
    const char *contents = nullptr;
    if (sd_bus_message_peek_type(message, &type, &contents) <= 0)
    {
        return "";
    }
    std::string text(1, type);
    if (contents != nullptr)
    {
        sd_bus_message_enter_container(message, type, contents);
        for (std::string value = NextValue(message); !value.empty();
             value = NextValue(message))
        {
            text += (text.size() == 1 ? "(" : " ") + value;
        }
        sd_bus_message_exit_container(message);
        return text + (text.size() == 1 ? "()" : ")");
    }
    union
    {
        const char *text;
        uint32_t number;
        int64_t big;
        double real;
    } value = {};
    sd_bus_message_read_basic(message, type, &value);
    return text + (type == 'u'   ? std::to_string(value.number)
                   : type == 'x' ? std::to_string(value.big)
                   : type == 'd' ? std::to_string(value.real)
                                 : '"' + std::string(value.text) + '"');
}

// Hears the manager's signals, and who has its name.
class BusListener
{
  public:
    BusListener()
    {
        sd_bus *opened = nullptr;
        EXPECT_GE(sd_bus_open_system(&opened), 0);
        mBus.reset(opened);
        for (const char *rule :
             {"type='signal',path_namespace='/com/vexo/tarnu'",
              "type='signal',member='NameOwnerChanged',"
              "arg0='com.vexo.tarnu.CfgMgr'"})
        {
            EXPECT_GE(sd_bus_add_match(opened, nullptr, rule, nullptr, nullptr),
                      0);
        }
    }

    // Waits for that many signals, one line each.
    std::string Take(size_t count)
    {
        EXPECT_TRUE(test::WaitUntil(
            [&]
            {
                Receive();
                return mCount >= count;
            }));
        mCount = 0;
        return std::exchange(mLines, "");
    }

  private:
    struct Close
    {
        void operator()(sd_bus *bus) const
        {
            sd_bus_close_unref(bus);
        }
    };

    void Receive()
    {
        sd_bus_message *message = nullptr;
        while (sd_bus_process(mBus.get(), &message) > 0)
        {
            if (sd_bus_message_is_signal(message, nullptr, nullptr) > 0 &&
                strcmp(sd_bus_message_get_member(message), "NameAcquired") != 0)
            {
                Keep(message);
            }
            message = sd_bus_message_unref(message);
        }
    }

    void Keep(sd_bus_message *message)
    {
        mLines += sd_bus_message_get_member(message) + std::string(" ") +
                  sd_bus_message_get_path(message) + ' ' +
                  sd_bus_message_get_interface(message);
        for (std::string value = NextValue(message); !value.empty();
             value = NextValue(message))
        {
            mLines += ' ' + value;
        }
        mLines += '\n';
        mCount++;
    }

    std::unique_ptr<sd_bus, Close> mBus;
    std::string mLines;
    size_t mCount = 0;
};

struct ConfigStep
{
    const char *command;
    std::string output; // "exit N" at its end unless N is 0
    std::string signals;
};

void RunSteps(const std::vector<ConfigStep> &steps, BusListener *listener)
{
    for (const ConfigStep &step : steps)
    {
        SCOPED_TRACE(step.command);
        EXPECT_EQ(Dmctl(step.command).End(), step.output);
        if (listener != nullptr)
        {
            const auto count = std::ranges::count(step.signals, '\n');
            EXPECT_EQ(listener->Take(static_cast<size_t>(count)), step.signals);
        }
    }
}

// clang-format off
const std::string kIntFull = "com.vexo.tarnu.Config.CfgIntAttribute";
const std::string kStrFull = "com.vexo.tarnu.Config.CfgStrAttribute";
const std::string kGroupPath = "/com/vexo/tarnu/Config/Attributes/a_1/b_1";
const std::string kCommit = "qdb_bulk_commit /com/vexo/tarnu/Config com.vexo.tarnu.Config.";

// In this order, on one stand-in.
const std::vector<ConfigStep> kConfigSteps = {
    {"cfg add CfgIntAttribute A.1#B.1#C currentValue=5 --oid 0x90000001",
     "0x90000001\n",
     "InterfacesAdded " + kGroupPath + "/c org.freedesktop.DBus.ObjectManager "
     "o\"" + kGroupPath + "/c\" a(e(s\"" + kIntFull + "\" a(e(s\"oid\" v(u2415919105)))))\n"},
    {"cfg add CfgStrAttribute A.1#B.1#C", "dmctl: A.1#B.1#C is there already\nexit 1\n", ""},
    {"cfg add CfgNoAttribute A.1#B.1#D", "dmctl: CfgNoAttribute isn't an attribute's interface\nexit 1\n", ""},
    {"cfg add CfgGroup A.1#B.10 --oid 0x901", "0x00000901\n", ""},
    {"cfg add CfgGroup G --oid 0x901", "dmctl: OID 0x901 is taken\nexit 1\n", ""},
    {"cfg add CfgGroup G Name=g", "dmctl: a group has no columns\nexit 1\n", ""},
    {"cfg set A.1#B.1#C currentValue=-7 'DisplayName=x y' DependencyText=null",
     "",
     "PropertiesChanged " + kGroupPath + "/c org.freedesktop.DBus.Properties s\"" + kIntFull + "\" "
     "a(e(s\"currentValue\" v(x-7)) e(s\"DisplayName\" v(s\"x y\"))) a(s\"DependencyText\")\n"},
    {"cfg set --silent A.1#B.1#C displayOrder=3", "", ""},
    {"cfg set A.1#B.1#C colour=1",
     "dmctl: TblIntAttribute.colour: there is no such column\nexit 1\n", ""},
    {"cfg set A.1#B.1#D currentValue=1",
     "dmctl: there is no attribute or group A.1#B.1#D\nexit 1\n", ""},
    {"cfg show A.1#B.1#C",
     "CfgIntAttribute, OID 0x90000001\nkey A.1#B.1#C\npath " + kGroupPath + "/c\n"
     "  Key = \"A.1#B.1#C\"\n  currentValue = -7\n  DisplayName = \"x y\"\n  displayOrder = 3\n", ""},
    {"cfg show --json A.1#B.10",
     "{\n  \"interface\": \"CfgGroup\",\n  \"oid\": 2305,\n  \"key\": \"A.1#B.10\",\n  \"path\": \"" +
     kGroupPath + "0\"\n}\n", ""},
    {"cfg remove A.1#B.1", "dmctl: the group A.1#B.1 has attributes\nexit 1\n", ""},
    {"cfg add --silent CfgStrAttribute A#B CurrentValue=z --oid 5", "0x00000005\n", ""},
    {"cfg list A.",
     "CfgGroup            0x40500000  A.1#B.1  " + kGroupPath + "\n"
     "CfgIntAttribute     0x90000001  A.1#B.1#C  " + kGroupPath + "/c  -7\n"
     "CfgGroup            0x00000901  A.1#B.10  " + kGroupPath + "0\n", ""},
    {"cfg remove A.1#B.1#C", "",
     "qdb_object_removed " + kGroupPath + "/c " + kIntFull + " u2415919105 s\"A.1#B.1#C\"\n"},
    {"cfg remove A.1#B.1", "", ""},
    {"cfg remove --silent A#B", "", ""},
    {"cfg list",
     "CfgGroup            0x40500001  A  /com/vexo/tarnu/Config/Attributes/a\n"
     "CfgGroup            0x00000901  A.1#B.10  " + kGroupPath + "0\n", ""},
    {"cfg commit CfgStrAttribute com.vexo.tarnu.Config.CfgIntAttribute", "",
     kCommit + "CfgStrAttribute\n" + kCommit + "CfgIntAttribute\n"},
    {"cfg commit CfgIntAttribute CfgGroup", "dmctl: CfgGroup isn't an attribute's interface\nexit 1\n", ""},
    {"cfg commit", "",
     kCommit + "CfgIntAttribute\n" + kCommit + "CfgStrAttribute\n" +
     kCommit + "CfgEnumAttribute\n" + kCommit + "CfgPasswdAttribute\n"},
    {"--socket /nonexistent cfg raw A.1#AppRawData /f",
     "", "RawDataUpdated /com/vexo/tarnu/Config com.vexo.tarnu.CfgMgr s\"A.1#AppRawData\" s\"/f\"\n"},
};

const std::string kNoBus =
    "dmctl: no connection: the system bus at unix:path=/nonexistent: No such file or directory\nexit 2\n";

const std::vector<ConfigStep> kStepsWithoutBus = {
    {"cfg add CfgIntAttribute A#B", kNoBus, ""},
    {"cfg add --silent CfgIntAttribute A#B currentValue=1 --oid 5", "0x00000005\n", ""},
    {"cfg set A#B currentValue=2", kNoBus, ""},
    {"cfg remove A#B", kNoBus, ""},
    {"cfg commit", kNoBus, ""},
    {"cfg raw A#B /f", kNoBus, ""},
    {"cfg own", kNoBus, ""},
    {"cfg list A#", "CfgIntAttribute     0x00000005  A#B  /com/vexo/tarnu/Config/Attributes/a/b  1\n", ""},
    {"--socket /nonexistent cfg list", "dmctl: no connection: /nonexistent: No such file or directory\nexit 2\n", ""},
    {"--socket '' list", "dmctl: no connection: not a socket's path: \"\"\nexit 2\n", ""},
};
// clang-format on

TEST_F(DmctlTest, AnnouncesWhatItChangesInTheConfiguration)
{
    const test::PrivateBus bus;
    BusListener listener;
    RunSteps(kConfigSteps, &listener);
}

TEST_F(DmctlTest, ChangesNothingThatItCannotAnnounce)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    RunSteps(kStepsWithoutBus, nullptr);
}

TEST_F(DmctlTest, HoldsTheManagersName)
{
    const std::string kHeld = "com.vexo.tarnu.CfgMgr is held\n";
    const std::string kOwner =
        "NameOwnerChanged /org/freedesktop/DBus org.freedesktop.DBus "
        "s\"com.vexo.tarnu.CfgMgr\" ";
    const std::string kTaken = kOwner + "s\"\" s\"X\"\n";
    const std::string kGivenUp = kOwner + "s\"X\" s\"\"\n";
    test::PrivateBus bus;
    BusListener listener;
    // The owner's connection has a new name each time.
    const auto takeChanges = [&listener](size_t count)
    {
        return std::regex_replace(listener.Take(count), std::regex(":[0-9.]+"),
                                  "X");
    };
    for (const int number : {SIGTERM, SIGINT})
    {
        Dmctl owner("cfg own");
        EXPECT_EQ(owner.Line(), kHeld);
        EXPECT_EQ(takeChanges(1), kTaken);
        EXPECT_EQ(Dmctl("cfg own").End(),
                  "dmctl: somebody else has the name com.vexo.tarnu.CfgMgr\n"
                  "exit 1\n");
        owner.Signal(number);
        EXPECT_EQ(owner.End(), "");
        EXPECT_EQ(takeChanges(1), kGivenUp);
    }
    EXPECT_EQ(Dmctl("cfg own --seconds 0.01").End(), kHeld);
    EXPECT_EQ(takeChanges(2), kTaken + kGivenUp);

    Dmctl owner("cfg own");
    EXPECT_EQ(owner.Line(), kHeld);
    bus.Kill();
    EXPECT_EQ(owner.End(),
              "dmctl: no connection: the system bus is gone\nexit 2\n");
}

} // namespace

} // namespace qdb

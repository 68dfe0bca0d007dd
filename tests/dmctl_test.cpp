// dmctl as its user sees it: the real program, the stand-in that it changes,
// and a bus on which a listener hears what it says as the configuration
// manager.
#include "platform/zoil.h"
#include "tests/support/private_bus.h"
#include "tests/support/standin_socket.h"
#include "tests/support/text.h"
#include "tests/support/wait.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <thread>

namespace qdb::test
{

namespace
{

// What a run of the program prints, and "exit N" behind it unless N is 0.
std::string Dmctl(const std::string &arguments)
{
    return OutputOf(Variable("QDB_TEST_DMCTL") + ' ' + arguments + " 2>&1");
}

// The message's types and values as sd-bus shows them, in one line.
std::string Content(sd_bus_message *message)
{
    char *text = nullptr;
    size_t size = 0;
    FILE *file = open_memstream(&text, &size);
    sd_bus_message_dump(message, file, SD_BUS_MESSAGE_DUMP_SUBTREE_ONLY);
    fclose(file);
    const std::string content = Replaced(text, "[;\\s]+", " ");
    free(text);
    return content;
}

using Bus = std::unique_ptr<sd_bus, decltype(&sd_bus_close_unref)>;

// Hears the manager's signals, and who has its name.
Bus Listen()
{
    sd_bus *opened = nullptr;
    EXPECT_GE(sd_bus_open_system(&opened), 0);
    for (const char *rule : {"type='signal',path_namespace='/com/vexo/tarnu'",
                             "type='signal',member='NameOwnerChanged',"
                             "arg0='com.vexo.tarnu.CfgMgr'"})
    {
        EXPECT_GE(sd_bus_add_match(opened, nullptr, rule, nullptr, nullptr), 0);
    }
    return {opened, sd_bus_close_unref};
}

// Waits for that many signals, one line each; all that have come by then.
std::string Heard(const Bus &bus, int64_t count)
{
    std::string lines;
    const auto receive = [&]
    {
        sd_bus_message *message = nullptr;
        while (sd_bus_process(bus.get(), &message) > 0)
        {
            if (sd_bus_message_is_signal(message, nullptr, nullptr) > 0 &&
                sd_bus_message_is_signal(message, nullptr, "NameAcquired") == 0)
            {
                lines += sd_bus_message_get_member(message) + std::string(" ") +
                         sd_bus_message_get_path(message) + ' ' +
                         sd_bus_message_get_interface(message) + ' ' +
                         Content(message) + '\n';
            }
            message = sd_bus_message_unref(message);
        }
        return std::ranges::count(lines, '\n') >= count;
    };
    EXPECT_TRUE(WaitUntil(receive));
    return lines;
}

struct Step
{
    std::string command;
    std::string output; // "exit N" at its end unless N is 0
    std::string signals = {};
};

void RunSteps(const std::vector<Step> &steps, const Bus *bus = nullptr)
{
    for (const Step &step : steps)
    {
        SCOPED_TRACE(step.command);
        EXPECT_EQ(Dmctl(step.command), step.output);
        if (bus != nullptr)
        {
            EXPECT_EQ(Heard(*bus, std::ranges::count(step.signals, '\n')),
                      step.signals);
        }
    }
}

// clang-format off
const std::string kIntFull = "com.vexo.tarnu.Config.CfgIntAttribute";
const std::string kGroupPath = "/com/vexo/tarnu/Config/Attributes/a_1/b_1";
std::string Commit(const std::string &name)
{
    return "qdb_bulk_commit /com/vexo/tarnu/Config com.vexo.tarnu.Config." + name + " \n";
}

// In this order, on one stand-in.
const std::vector<Step> kConfigSteps = {
    {"cfg add CfgIntAttribute A.1#B.1#C currentValue=5 --oid 0x90000001",
     "0x90000001\n",
     "InterfacesAdded " + kGroupPath + "/c org.freedesktop.DBus.ObjectManager "
     "OBJECT_PATH \"" + kGroupPath + "/c\" ARRAY \"{sa{sv}}\" { DICT_ENTRY \"sa{sv}\" { "
     "STRING \"" + kIntFull + "\" ARRAY \"{sv}\" { DICT_ENTRY \"sv\" { STRING \"oid\" VARIANT \"u\" { "
     "UINT32 2415919105 } } } } } \n"},
    {"cfg add CfgStrAttribute A.1#B.1#C", "dmctl: A.1#B.1#C is there already\nexit 1\n"},
    {"cfg add CfgGroup A.1#B.10 --oid 0x901", "0x00000901\n"},
    {"cfg add CfgGroup G --oid 0x901", "dmctl: OID 0x901 is taken\nexit 1\n"},
    {"cfg set A.1#B.1#C currentValue=-7 'DisplayName=x y' DependencyText=null",
     "",
     "PropertiesChanged " + kGroupPath + "/c org.freedesktop.DBus.Properties STRING \"" + kIntFull + "\" "
     "ARRAY \"{sv}\" { DICT_ENTRY \"sv\" { STRING \"currentValue\" VARIANT \"x\" { INT64 -7 } } "
     "DICT_ENTRY \"sv\" { STRING \"DisplayName\" VARIANT \"s\" { STRING \"x y\" } } } "
     "ARRAY \"s\" { STRING \"DependencyText\" } \n"},
    {"cfg set --silent A.1#B.1#C displayOrder=3", ""},
    {"cfg set A.1#B.1#C colour=1",
     "dmctl: TblIntAttribute.colour: there is no such column\nexit 1\n"},
    {"cfg set A.1#B.1#D currentValue=1",
     "dmctl: there is no attribute or group A.1#B.1#D\nexit 1\n"},
    {"cfg show A.1#B.1#C",
     "CfgIntAttribute, OID 0x90000001\nkey A.1#B.1#C\npath " + kGroupPath + "/c\n"
     "  Key = \"A.1#B.1#C\"\n  currentValue = -7\n  DisplayName = \"x y\"\n  displayOrder = 3\n"},
    {"cfg show --json A.1#B.1",
     "{\n  \"interface\": \"CfgGroup\",\n  \"oid\": 1078984704,\n  \"key\": \"A.1#B.1\",\n  \"path\": \"" +
     kGroupPath + "\"\n}\n"},
    {"cfg remove A.1#B.1", "dmctl: the group A.1#B.1 has attributes\nexit 1\n"},
    {"cfg add --silent CfgStrAttribute A#B CurrentValue=z --oid 5", "0x00000005\n"},
    {"cfg list A.",
     "CfgGroup            0x40500000  A.1#B.1  " + kGroupPath + "\n"
     "CfgIntAttribute     0x90000001  A.1#B.1#C  " + kGroupPath + "/c  -7\n"
     "CfgGroup            0x00000901  A.1#B.10  " + kGroupPath + "0\n"},
    {"cfg remove A.1#B.1#C", "",
     "qdb_object_removed " + kGroupPath + "/c " + kIntFull + " UINT32 2415919105 STRING \"A.1#B.1#C\" \n"},
    {"cfg remove A.1#B.1", ""},
    {"cfg remove --silent A#B", ""},
    {"cfg list",
     "CfgGroup            0x40500001  A  /com/vexo/tarnu/Config/Attributes/a\n"
     "CfgGroup            0x00000901  A.1#B.10  " + kGroupPath + "0\n"},
    {"cfg commit CfgStrAttribute com.vexo.tarnu.Config.CfgIntAttribute", "",
     Commit("CfgStrAttribute") + Commit("CfgIntAttribute")},
    {"cfg commit", "",
     Commit("CfgIntAttribute") + Commit("CfgStrAttribute") + Commit("CfgEnumAttribute") +
     Commit("CfgPasswdAttribute")},
    {"--socket /nonexistent cfg raw A.1#AppRawData /f",
     "", "RawDataUpdated /com/vexo/tarnu/Config com.vexo.tarnu.CfgMgr STRING \"A.1#AppRawData\" STRING \"/f\" \n"},
    {"cfg add CfgIntAttribute 'no path#X'", "dmctl: can't send InterfacesAdded: Invalid argument\nexit 1\n"},
};

const std::string kNoBus =
    "dmctl: no connection: the system bus at unix:path=/nonexistent: No such file or directory\nexit 2\n";

const std::vector<Step> kStepsWithoutBus = {
    {"cfg add CfgIntAttribute A#B", kNoBus},
    {"cfg add --silent CfgIntAttribute A#B currentValue=1 --oid 5", "0x00000005\n"},
    {"cfg set A#B currentValue=2", kNoBus},
    {"cfg own", kNoBus},
    {"--socket /nonexistent cfg list", "dmctl: no connection: /nonexistent: No such file or directory\nexit 2\n"},
    {"--socket '' list", "dmctl: no connection: not a socket's path: \"\"\nexit 2\n"},
    {"cfg list A#", "CfgIntAttribute     0x00000005  A#B  /com/vexo/tarnu/Config/Attributes/a/b  1\n"},
};
// clang-format on

// clang-format off
const std::vector<Step> kManagerSteps = {
    {"create 0xE1 --oid 100 --parent 1 --parent 0x36 --key k Speed=2400 'BankLabel=A=1'", "0x00000064\n"},
    {"create 0x16", "0x00001000\n"},
    {"create 0xE1 Sped=1", "dmctl: TblMemoryInfo.Sped: there is no such column\nexit 1\n"},
    {"status 100 3", ""},
    {"set 100 BankLabel=null Rank=7 Speed=2500", ""},
    {"set 0x1000 Key=p", ""},
    {"set 100 Rank", "dmctl: not COLUMN=VALUE: Rank\nexit 1\n"},
    {"set 100 \"$(printf 'fqdd=\\377')\"", "dmctl: not valid UTF-8: fqdd\nexit 1\n"},
    {"list", "0x00000064  0xE1    k\n0x00001000  0x16    p\n"},
    {"list 0x16", "0x00001000  0x16    p\n"},
    {"show 0x64", "OID 0x00000064, type 0xE1, status 3, 341 bytes\nkey k\nparents 0x00000001 0x00000036\n"
                  "  Rank = 7\n  Speed = 2500\n"},
    {"show 0x64 --json | grep Speed", "    \"Speed\": 2500\n"},
    {"delete 100 0x1000", ""},
    {"delete 100", "dmctl: there is no object 0x64\nexit 1\n"},
    {"fault ZOAllocMem 0 1 --skip 2", ""},
    {"calls ZOAllocMem", "0\n"},
    {"delay vexoprintf 5 --random --skip 2 --times 1 --text x", ""},
    {"delay ZOFreeMem 5 --oid 1", "dmctl: ZOFreeMem isn't told of an object\nexit 1\n"},
    {"churn --rate 10 --count 1 0x16", "dmctl: there is no live object to change\nexit 1\n"},
    {"event /nonexistent", "dmctl: cannot send /nonexistent\nexit 1\n"},
    {"attributes", ""},
};
// clang-format on

class DmctlTest : public StandinSocketTest
{
};

TEST_F(DmctlTest, AnnouncesWhatItChangesInTheConfiguration)
{
    const PrivateBus daemon;
    const Bus bus = Listen();
    RunSteps(kConfigSteps, &bus);
}

TEST_F(DmctlTest, ChangesNothingThatItCannotAnnounce)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    RunSteps(kStepsWithoutBus);
}

TEST_F(DmctlTest, HoldsTheManagersName)
{
    const PrivateBus daemon;
    const Bus bus = Listen();
    EXPECT_EQ(Dmctl("cfg own --seconds 0.01"),
              "com.vexo.tarnu.CfgMgr is held\n");
    // The owner's connection has a name of its own.
    EXPECT_EQ(Replaced(Heard(bus, 2), ":[0-9.]+", "X"),
              "NameOwnerChanged /org/freedesktop/DBus org.freedesktop.DBus "
              "STRING \"com.vexo.tarnu.CfgMgr\" STRING \"\" "
              "STRING \"X\" \n"
              "NameOwnerChanged /org/freedesktop/DBus org.freedesktop.DBus "
              "STRING \"com.vexo.tarnu.CfgMgr\" STRING \"X\" "
              "STRING \"\" \n");
}

TEST_F(DmctlTest, WorksTheDataManager)
{
    RunSteps(kManagerSteps);
}

TEST_F(DmctlTest, TellsWhatHangs)
{
    RunSteps({{"measure on", ""},
              {"delay ZOILListParentOID hang --late --oid 0x7001", ""}});
    std::thread caller(
        []
        {
            const uint32_t oid = 0x7001;
            ZOILFreeGeneric(ZOILListParentOID(&oid));
        });
    EXPECT_TRUE(WaitUntil(
        []
        {
            return Dmctl("hanging ZOILListParentOID") == "1\n";
        }));
    EXPECT_EQ(Dmctl("release"), "");
    caller.join();
    EXPECT_EQ(Dmctl("hanging ZOILListParentOID"), "0\n");
    EXPECT_EQ(Dmctl("cost").find("calls 1\ncpuNanoseconds "), 0u);
    EXPECT_EQ(Dmctl("measure off"), "");
}

TEST_F(DmctlTest, AuditsWhatItCanRead)
{
    const TempRoot folder;
    folder.MakeDatabase();
    std::ofstream(folder.Path() + "/text.db") << std::string(5000, 'x');
    const std::string audit = "audit --database ";
    const std::string equal = "0 differences in 0 objects\n";
    RunSteps({
        {audit + folder.Database(), equal},
        // A Data Manager that isn't ready has nothing to mirror.
        {"generate 1 0x16", ""},
        {"detach", ""},
        {audit + folder.Database(), equal},
        {audit + folder.Path() + "/missing.db",
         "dmctl: " + folder.Path() +
             "/missing.db: unable to open database file\nexit 2\n"},
        {audit + folder.Path() + "/text.db",
         "dmctl: " + folder.Path() +
             "/text.db: file is not a database\nexit 2\n"},
    });
}

} // namespace

} // namespace qdb::test

// dmctl as the configuration manager: the real program, the stand-in that it
// changes, and a bus on which a listener hears what it says.
#include "tests/support/private_bus.h"
#include "tests/support/standin_socket.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <regex>
#include <utility>

namespace qdb::test
{

namespace
{

// What a run of the program prints, and "exit N" behind it unless N is 0.
std::string Dmctl(const std::string &arguments)
{
    const char *program = getenv("QDB_TEST_DMCTL");
    EXPECT_NE(program, nullptr);
    const std::string command =
        std::string(program) + ' ' + arguments + " 2>&1";
    FILE *output = popen(command.c_str(), "r");
    std::string text;
    for (int c = fgetc(output); c != EOF; c = fgetc(output))
    {
        text += static_cast<char>(c);
    }
    const int status = pclose(output);
    return status == 0
               ? text
               : text + "exit " + std::to_string(WEXITSTATUS(status)) + '\n';
}

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
    } value = {};
    sd_bus_message_read_basic(message, type, &value);
    return text + (type == 'u'   ? std::to_string(value.number)
                   : type == 'x' ? std::to_string(value.big)
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
        EXPECT_TRUE(WaitUntil(
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
        EXPECT_EQ(Dmctl(step.command), step.output);
        if (listener != nullptr)
        {
            const auto count = std::ranges::count(step.signals, '\n');
            EXPECT_EQ(listener->Take(static_cast<size_t>(count)), step.signals);
        }
    }
}

// clang-format off
const std::string kIntFull = "com.vexo.tarnu.Config.CfgIntAttribute";
const std::string kGroupPath = "/com/vexo/tarnu/Config/Attributes/a_1/b_1";
const std::string kCommit = "qdb_bulk_commit /com/vexo/tarnu/Config com.vexo.tarnu.Config.";

// In this order, on one stand-in.
const std::vector<ConfigStep> kConfigSteps = {
    {"cfg add CfgIntAttribute A.1#B.1#C currentValue=5 --oid 0x90000001",
     "0x90000001\n",
     "InterfacesAdded " + kGroupPath + "/c org.freedesktop.DBus.ObjectManager "
     "o\"" + kGroupPath + "/c\" a(e(s\"" + kIntFull + "\" a(e(s\"oid\" v(u2415919105)))))\n"},
    {"cfg add CfgStrAttribute A.1#B.1#C", "dmctl: A.1#B.1#C is there already\nexit 1\n", ""},
    {"cfg add CfgGroup A.1#B.10 --oid 0x901", "0x00000901\n", ""},
    {"cfg add CfgGroup G --oid 0x901", "dmctl: OID 0x901 is taken\nexit 1\n", ""},
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
    {"cfg show --json A.1#B.1",
     "{\n  \"interface\": \"CfgGroup\",\n  \"oid\": 1078984704,\n  \"key\": \"A.1#B.1\",\n  \"path\": \"" +
     kGroupPath + "\"\n}\n", ""},
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
    {"cfg commit", "",
     kCommit + "CfgIntAttribute\n" + kCommit + "CfgStrAttribute\n" +
     kCommit + "CfgEnumAttribute\n" + kCommit + "CfgPasswdAttribute\n"},
    {"--socket /nonexistent cfg raw A.1#AppRawData /f",
     "", "RawDataUpdated /com/vexo/tarnu/Config com.vexo.tarnu.CfgMgr s\"A.1#AppRawData\" s\"/f\"\n"},
    {"cfg add CfgIntAttribute 'no path#X'", "dmctl: can't send InterfacesAdded: Invalid argument\nexit 1\n", ""},
};

const std::string kNoBus =
    "dmctl: no connection: the system bus at unix:path=/nonexistent: No such file or directory\nexit 2\n";

const std::vector<ConfigStep> kStepsWithoutBus = {
    {"cfg add CfgIntAttribute A#B", kNoBus, ""},
    {"cfg add --silent CfgIntAttribute A#B currentValue=1 --oid 5", "0x00000005\n", ""},
    {"cfg set A#B currentValue=2", kNoBus, ""},
    {"cfg own", kNoBus, ""},
    {"--socket /nonexistent cfg list", "dmctl: no connection: /nonexistent: No such file or directory\nexit 2\n", ""},
    {"--socket '' list", "dmctl: no connection: not a socket's path: \"\"\nexit 2\n", ""},
    {"cfg list A#", "CfgIntAttribute     0x00000005  A#B  /com/vexo/tarnu/Config/Attributes/a/b  1\n", ""},
};
// clang-format on

class ConfigTest : public StandinSocketTest
{
};

TEST_F(ConfigTest, AnnouncesWhatItChangesInTheConfiguration)
{
    const PrivateBus bus;
    BusListener listener;
    RunSteps(kConfigSteps, &listener);
}

TEST_F(ConfigTest, ChangesNothingThatItCannotAnnounce)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    RunSteps(kStepsWithoutBus, nullptr);
}

TEST_F(ConfigTest, HoldsTheManagersName)
{
    const PrivateBus bus;
    BusListener listener;
    EXPECT_EQ(Dmctl("cfg own --seconds 0.01"),
              "com.vexo.tarnu.CfgMgr is held\n");
    // The owner's connection has a name of its own.
    EXPECT_EQ(std::regex_replace(listener.Take(2), std::regex(":[0-9.]+"), "X"),
              "NameOwnerChanged /org/freedesktop/DBus org.freedesktop.DBus "
              "s\"com.vexo.tarnu.CfgMgr\" s\"\" s\"X\"\n"
              "NameOwnerChanged /org/freedesktop/DBus org.freedesktop.DBus "
              "s\"com.vexo.tarnu.CfgMgr\" s\"X\" s\"\"\n");
}

} // namespace

} // namespace qdb::test

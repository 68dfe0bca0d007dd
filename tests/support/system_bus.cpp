#include "tests/support/system_bus.h"

#include "tests/support/text.h"
#include "tests/support/wait.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace qdb::test
{
namespace
{

constexpr char kDistribution[] = "/usr/share/dbus-1/system.conf";
constexpr uid_t kRoot = 0;

// The distribution's configuration without what ties it to the machine: its
// user, its files, and the policies of other packages. The directory "system.d"
// stays, which is looked for beside the configuration.
std::string OnlyThePolicy(const std::string &socket)
{
    std::string text =
        Replaced(FileText(kDistribution),
                 "<(user|pidfile|servicehelper|listen)>[^<]*</\\1>|"
                 "<(include|includedir)[^>]*>/[^<]*</\\2>|"
                 "<(fork|syslog|standard_system_servicedirs)/>",
                 "");
    const std::string end = "</busconfig>";
    text.replace(text.rfind(end), end.size(),
                 "<listen>unix:path=" + socket + "</listen>\n" + end);
    return text;
}

// What the configuration manager's own policy lets it do.
constexpr char kConfigManager[] =
    "<busconfig><policy user=\"root\"><allow own=\"com.vexo.tarnu.CfgMgr\"/>"
    "</policy></busconfig>";

// A group that nobody in a test is in, and that every Debian has.
constexpr char kGroup[] = "games";

std::string OfThatGroup(std::string policy)
{
    const std::string name = "\"quillondb\"";
    const size_t at = policy.find(name);
    EXPECT_NE(at, std::string::npos);
    return policy.replace(at, name.size(), std::string("\"") + kGroup + "\"");
}

} // namespace

gid_t ServiceGroup()
{
    const group *entry = getgrnam(kGroup);
    EXPECT_NE(entry, nullptr);
    return entry == nullptr ? 0 : entry->gr_gid;
}

bool SystemBus::IsThere()
{
    return std::filesystem::exists(kDistribution);
}

SystemBus::SystemBus(bool strict)
{
    const std::string &directory = root_.Path();
    const std::string added = directory + "/system.d/";
    const std::string ours =
        Variable("QDB_TEST_SOURCE") + "/packaging/com.vexo.tarnu.qdb.";
    std::filesystem::create_directory(added);
    std::ofstream(added + "cfgmgr.conf") << kConfigManager;
    std::filesystem::copy(ours + "conf", added);
    if (strict)
    {
        std::ofstream(added + "strict.conf")
            << OfThatGroup(FileText(ours + "strict.conf"));
    }
    const std::string configuration = directory + "/system.conf";
    std::ofstream(configuration) << OnlyThePolicy(directory + "/socket");
    // Other users look for the socket in it.
    EXPECT_EQ(chmod(directory.c_str(), 0755), 0);
    daemon_.emplace(configuration, directory + "/socket");
}

BusUser::BusUser(const SystemBus &bus, uid_t user,
                 const std::vector<gid_t> &groups)
{
    EXPECT_TRUE(Connect(bus.Address(), user, groups));
}

BusUser::~BusUser()
{
    sd_bus_flush_close_unref(bus_);
}

// The bus takes the user from the socket, and that from who connects.
bool BusUser::Connect(const std::string &address, uid_t user,
                      const std::vector<gid_t> &groups)
{
    gid_t before[NGROUPS_MAX];
    const int count = getgroups(NGROUPS_MAX, before);
    EXPECT_GE(count, 0);
    sd_bus *bus = nullptr;
    EXPECT_EQ(setgroups(groups.size(), groups.data()), 0);
    EXPECT_EQ(seteuid(user), 0);
    bool good = sd_bus_new(&bus) >= 0 &&
                sd_bus_set_address(bus, address.c_str()) >= 0 &&
                sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0;
    EXPECT_EQ(seteuid(kRoot), 0);
    EXPECT_EQ(setgroups(static_cast<size_t>(count), before), 0);
    // Who changes its user isn't for debuggers any more, nor for the search for
    // leaks.
    EXPECT_EQ(prctl(PR_SET_DUMPABLE, 1), 0);
    const char *name = nullptr;
    good = good && sd_bus_get_unique_name(bus, &name) >= 0;
    bus_ = good ? bus : sd_bus_unref(bus);
    return good;
}

const char *BusUser::Name() const
{
    const char *name = "";
    EXPECT_GE(sd_bus_get_unique_name(bus_, &name), 0);
    return name;
}

uid_t BusUser::User() const
{
    sd_bus_creds *credentials = nullptr;
    uid_t user = static_cast<uid_t>(-1);
    EXPECT_GE(
        sd_bus_get_name_creds(bus_, Name(), SD_BUS_CREDS_EUID, &credentials),
        0);
    sd_bus_creds_get_euid(credentials, &user);
    sd_bus_creds_unref(credentials);
    return user;
}

ptrdiff_t BusUser::Connections() const
{
    char **names = nullptr;
    EXPECT_GE(sd_bus_list_names(bus_, &names, nullptr), 0);
    ptrdiff_t count = 0;
    for (char **name = names; name != nullptr && *name != nullptr; ++name)
    {
        count += **name == ':' ? 1 : 0;
        std::free(*name);
    }
    std::free(names);
    return count;
}

void BusUser::Own(const char *name) const
{
    EXPECT_GE(sd_bus_request_name(bus_, name, 0), 0);
}

void BusUser::Listen() const
{
    EXPECT_GE(
        sd_bus_add_match(bus_, nullptr, "type='signal'", nullptr, nullptr), 0);
}

void BusUser::Emit(const char *path, const char *interface, const char *member,
                   const char *destination, const std::string &text) const
{
    sd_bus_message *signal = nullptr;
    EXPECT_GE(sd_bus_message_new_signal(bus_, &signal, path, interface, member),
              0);
    if (destination != nullptr)
    {
        EXPECT_GE(sd_bus_message_set_destination(signal, destination), 0);
    }
    EXPECT_GE(sd_bus_message_append(signal, "ss", text.c_str(), ""), 0);
    EXPECT_GE(sd_bus_send(bus_, signal, nullptr), 0);
    EXPECT_GE(sd_bus_flush(bus_), 0);
    sd_bus_message_unref(signal);
}

// The first text of the next signal; "" when there is none yet.
std::string BusUser::Next()
{
    sd_bus_message *message = nullptr;
    const char *text = nullptr;
    std::string result;
    sd_bus_process(bus_, &message);
    if (message != nullptr && sd_bus_message_read(message, "s", &text) > 0)
    {
        result = text;
        sender_ = sd_bus_message_get_sender(message);
    }
    sd_bus_message_unref(message);
    return result;
}

bool BusUser::HearsBefore(const std::string &text, const std::string &end)
{
    std::string heard;
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            heard = Next();
            return heard == text || heard == end;
        }));
    return heard == text;
}

std::string BusUser::WaitForChange()
{
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            return Next().find("\"TableName\"") != std::string::npos;
        }));
    return sender_;
}

std::string BusUser::Call(const std::string &name, const char *path,
                          const char *interface, const char *member) const
{
    sd_bus_error error = {};
    const int result = sd_bus_call_method(bus_, name.c_str(), path, interface,
                                          member, &error, nullptr, "");
    const std::string text =
        result >= 0 ? "" : (error.name == nullptr ? "lost" : error.name);
    sd_bus_error_free(&error);
    return text;
}

} // namespace qdb::test

// The bus policy, on a dbus-daemon with the distribution's own: who may send
// what, and who receives it. Nobody's word is heard that isn't his to give, and
// nobody else's signals are in the way.
//
// Needs two users, and so root.

#include "tests/support/service_process.h"
#include "tests/support/system_bus.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <memory>

namespace qdb::test
{
namespace
{

constexpr uid_t kRoot = 0;

// Who has no business with the service but to hear it.
uid_t Stranger()
{
    const passwd *entry = getpwnam("nobody");
    return entry == nullptr ? kRoot : entry->pw_uid;
}

class Policy : public ::testing::Test
{
  public:
    void SetUp() override
    {
        if (geteuid() != kRoot || Stranger() == kRoot)
        {
            GTEST_SKIP() << "needs root, and a user nobody";
        }
        if (!SystemBus::IsThere())
        {
            GTEST_SKIP() << "needs the distribution's system bus";
        }
        bus_ = std::make_unique<SystemBus>();
    }

  protected:
    std::unique_ptr<SystemBus> bus_;
};

constexpr char kChanges[] = "com.vexo.tarnu.qdb.changeeventnotify";
constexpr char kChangePath[] = "/com/vexo/tarnu/qdb/changeeventnotify";
constexpr char kManager[] = "/com/vexo/tarnu";
constexpr char kConfig[] = "/com/vexo/tarnu/Config";
constexpr char kAttribute[] = "/com/vexo/tarnu/Config/Attributes/a/users_2/b";
constexpr char kStrings[] = "com.vexo.tarnu.Config.CfgStrAttribute";
constexpr char kConfigName[] = "com.vexo.tarnu.CfgMgr";
constexpr char kObjects[] = "org.freedesktop.DBus.ObjectManager";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";

enum class Heard
{
    ofRoot, // and refused to everybody else
    ofAll,
};

struct Sent
{
    const char *path;
    const char *interface;
    const char *member;
    Heard heard;
};

// clang-format off
constexpr Sent kSent[] = {
    // Changes of the mirror, which only the service tells of.
    {kChangePath, kChanges,      "Vexo_qdb_Resource_Added",   Heard::ofRoot},
    {kChangePath, kChanges,      "Vexo_qdb_Resource_Changed", Heard::ofRoot},
    {kChangePath, kChanges,      "Vexo_qdb_Resource_Removed", Heard::ofRoot},
    {"/x",        kChanges,      "Vexo_qdb_Resource_Removed", Heard::ofRoot},
    // What the service hears, on whatever interface.
    {kAttribute,  kStrings,      "qdb_object_removed",        Heard::ofRoot},
    {"/x",        "any.other",   "qdb_object_removed",        Heard::ofRoot},
    {kConfig,     kStrings,      "qdb_bulk_commit",           Heard::ofRoot},
    {"/x",        "any.other",   "qdb_bulk_commit",           Heard::ofRoot},
    {kConfig,     kConfigName,   "RawDataUpdated",            Heard::ofRoot},
    {"/x",        "any.other",   "RawDataUpdated",            Heard::ofRoot},
    {kManager,    kObjects,      "InterfacesAdded",           Heard::ofRoot},
    {kManager,    "any.other",   "InterfacesAdded",           Heard::ofRoot},
    {kConfig,     kObjects,      "InterfacesAdded",           Heard::ofRoot},
    {kManager,    kProperties,   "PropertiesChanged",         Heard::ofRoot},
    {kConfig,     kProperties,   "PropertiesChanged",         Heard::ofRoot},
    // No rule can tell an attribute's path from anybody's.
    {kAttribute,  kObjects,      "InterfacesAdded",           Heard::ofAll},
    {kAttribute,  kProperties,   "PropertiesChanged",         Heard::ofAll},
    // Others' objects are theirs.
    {"/org/other", kObjects,     "InterfacesAdded",           Heard::ofAll},
    {"/org/other", kObjects,     "InterfacesRemoved",         Heard::ofAll},
    {"/org/other", kProperties,  "PropertiesChanged",         Heard::ofAll},
    {"/org/other", "org.other.I", "Anything",                 Heard::ofAll},
};
// clang-format on

// What isn't heard has been refused once a signal that came later on the same
// connection is there.
void ExpectHeard(const BusUser &sender, uid_t user, BusUser &root,
                 BusUser &other)
{
    int count = 0;
    for (const Sent &sent : kSent)
    {
        for (const char *destination :
             {static_cast<const char *>(nullptr), root.Name()})
        {
            const std::string text = "text " + std::to_string(++count);
            const std::string end = "end of " + text;
            sender.Emit(sent.path, sent.interface, sent.member, destination,
                        text);
            sender.Emit("/end", "test.End", "End", nullptr, end);
            const bool expected = sent.heard == Heard::ofAll || user == kRoot;
            SCOPED_TRACE(std::string(sent.interface) + "." + sent.member +
                         " from " + sent.path + " by " + std::to_string(user) +
                         (destination == nullptr ? "" : ", to one"));
            EXPECT_EQ(root.HearsBefore(text, end), expected);
            EXPECT_EQ(other.HearsBefore(text, end),
                      expected && destination == nullptr);
        }
    }
}

TEST_F(Policy, LetsNobodySpeakForTheServiceOrItsConfiguration)
{
    BusUser root(*bus_, kRoot);
    BusUser other(*bus_, Stranger());
    root.Listen();
    other.Listen();
    for (const uid_t user : {kRoot, Stranger()})
    {
        const BusUser sender(*bus_, user);
        ASSERT_EQ(sender.User(), user);
        ExpectHeard(sender, user, root, other);
    }
}

TEST_F(Policy, LetsEverybodyHearTheServiceAndAskIt)
{
    constexpr char kDenied[] = "org.freedesktop.DBus.Error.AccessDenied";
    // The first line is what is allowed; the others stay as they are.
    const struct
    {
        const char *path;
        const char *interface;
        const char *member;
        const char *expected;
    } calls[] = {
        {kManager, kObjects, "GetManagedObjects", ""},
        {"/org/other", kObjects, "GetManagedObjects", kDenied},
        {kManager, kObjects, "Another", kDenied},
        {kManager, kProperties, "GetAll", kDenied},
    };
    ServiceProcess service(
        {.scenario = Server(3), .busAddress = bus_->Address()});
    service.Start();
    ASSERT_TRUE(service.WaitReady());
    int speed = 1000;
    for (const uid_t user : {kRoot, Stranger()})
    {
        BusUser client(*bus_, user);
        ASSERT_EQ(client.User(), user);
        client.Listen();
        service.SetSpeed(++speed);
        const std::string name = client.WaitForChange();
        for (const auto &call : calls)
        {
            SCOPED_TRACE(std::string(call.path) + " " + call.member + " by " +
                         std::to_string(user));
            EXPECT_EQ(client.Call(name, call.path, call.interface, call.member),
                      call.expected);
        }
    }
    EXPECT_EQ(service.Stop(), 0);
}

// A connection that never greets is closed by the bus, with a complaint.
TEST_F(Policy, GreetsOnEveryConnection)
{
    ServiceProcess service(
        {.scenario = Server(3), .busAddress = bus_->Address()});
    service.Start();
    const BusUser root(*bus_, kRoot);
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            constexpr ptrdiff_t kOfTheService = 3;
            return root.Connections() == 1 + kOfTheService;
        }));
    EXPECT_EQ(service.Stop(), 0);
}

// With the strict policy no signal of anybody else gets to the service's group,
// and all that of the configuration manager does; others hear as before.
TEST_F(Policy, LetsTheServicesGroupHearItsConfigurationAlone)
{
    const SystemBus bus(true);
    BusUser service(bus, kRoot, {ServiceGroup()});
    BusUser other(bus, kRoot);
    const BusUser manager(bus, kRoot);
    service.Listen();
    other.Listen();
    manager.Own(kConfigName);
    int count = 0;
    for (const uid_t user : {kRoot, Stranger()})
    {
        const BusUser sender(bus, user);
        for (const Sent &sent : kSent)
        {
            const std::string text = "text " + std::to_string(++count);
            const std::string end = "end of " + text;
            sender.Emit(sent.path, sent.interface, sent.member, nullptr, text);
            // Its answer tells that the bus has dealt with the signal.
            EXPECT_EQ(sender.User(), user);
            manager.Emit(sent.path, sent.interface, sent.member, nullptr, end);
            SCOPED_TRACE(std::string(sent.interface) + "." + sent.member +
                         " by " + std::to_string(user));
            EXPECT_FALSE(service.HearsBefore(text, end));
            EXPECT_EQ(other.HearsBefore(text, end),
                      sent.heard == Heard::ofAll || user == kRoot);
        }
    }
}

} // namespace
} // namespace qdb::test

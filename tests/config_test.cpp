// Configuration attributes: finding their groups, the bulk load, and the reload
// after a detach. How single ones are fetched, and what the reload makes of
// failures, is recorded in the stream.
#include "config/config_load.h"
#include "config/config_objects.h"
#include "core/gate.h"
#include "db/clearing.h"
#include "tests/support/config_bytes.h"
#include "tests/support/db_fixture.h"

#include <dlfcn.h>
#include <unistd.h>

#include <thread>

namespace qdb::test
{
namespace
{

// What the client library lists instead of its own objects, and its status.
struct Listing
{
    std::vector<Bytes> objects;
    int status = 0;
};
const Listing *gListing = nullptr;

} // namespace
} // namespace qdb::test

// Takes the place of the library's in this program.
int client_get_objects(const char *interfaceName, const char *filter,
                       uintptr_t **ppList)
{
    static const auto original =
        reinterpret_cast<decltype(client_get_objects) *>(
            dlsym(RTLD_NEXT, "client_get_objects"));
    EXPECT_STREQ(filter, "");
    const qdb::test::Listing *listing = qdb::test::gListing;
    if (listing == nullptr)
    {
        return original(interfaceName, filter, ppList);
    }
    *ppList = static_cast<uintptr_t *>(
        std::calloc(listing->objects.size() + 1, sizeof(uintptr_t)));
    for (const qdb::test::Bytes &object : listing->objects)
    {
        void *copy = std::malloc(object.size());
        std::memcpy(copy, object.data(), object.size());
        (*ppList)[++**ppList] = reinterpret_cast<uintptr_t>(copy);
    }
    return listing->status;
}

namespace qdb::test
{
namespace
{

struct ConfigTest : DbTest
{
    ~ConfigTest() override
    {
        gListing = nullptr;
    }
};

std::vector<DataObjHeader *> PointersTo(const std::vector<Bytes> &groups)
{
    std::vector<DataObjHeader *> pointers;
    for (const Bytes &group : groups)
    {
        pointers.push_back(const_cast<DataObjHeader *>(HeaderOf(group)));
    }
    return pointers;
}

TEST_F(ConfigTest, AGroupIsFoundByItsWholeKey)
{
    const std::string k510(510, 'G');
    const std::string k511(511, 'G');
    const Bytes kUnended = With(Group("A"), kSizeWord, 25);
    // clang-format off
    const struct
    {
        const char *name;
        Bytes attribute;
        std::vector<Bytes> groups;
        int found; // place in `groups`, -1: none
    } kCases[] = {
        {"1 and 10", Attribute("A.1#B.10#X"), {Group("A.1#B.1"), Group("A.1#B.10")}, 1},
        {"the first of two", Attribute("A#B#C#X"), {Group("Z"), Group("A#B"), Group("A#B#C")}, 1},
        {"its own key", Attribute("A#B"), {Group("A#B")}, -1},
        {"no groups", Attribute("A#B"), {}, -1},
        {"groups without a key", Attribute("A#B"), {With(Group("A"), kKeyWord, 26), kUnended, With(Group("A"), kSizeWord, 16), Group("A")}, 3},
        // Longer keys are cut to 511 characters, the "#" included.
        {"510", Attribute(k510 + "#X"), {Group(k510)}, 0},
        {"510 and more", Attribute(k510 + "G#X"), {Group(k510)}, -1},
        {"511", Attribute(k511 + "Y#X"), {Group(k511)}, 0},
        // An attribute without a key has no group.
        {"no attribute", Group("A#B"), {Group("A")}, -1},
        {"a small attribute", With(Attribute("A#B"), kSizeWord, 16), {Group("A")}, -1},
        {"a key outside", With(Attribute("A#B"), kKeyWord, 0xFFFFFFF0), {Group("A")}, -1},
        {"an unended key", With(Attribute("A#B"), kSizeWord, 0x5E), {Group("A")}, -1},
    };
    // clang-format on
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.name);
        GroupCache cache = nullptr;
        const DataObjHeader *found =
            GetGroupObject(HeaderOf(c.attribute), PointersTo(c.groups), &cache);
        EXPECT_EQ(found,
                  c.found < 0
                      ? nullptr
                      : HeaderOf(c.groups[static_cast<size_t>(c.found)]));
        EXPECT_EQ(cache, found);
    }
}

TEST_F(ConfigTest, TheLastGroupIsAskedFirst)
{
    const std::vector<Bytes> groups = {Group("A"), Group("B"), Group("C")};
    GroupCache cache = nullptr;
    const struct
    {
        const char *key;
        int found;
        int cached;
        uint64_t looks; // at groups
    } kSteps[] = {
        {"C#1", 2, 2, 3}, {"C#2", 2, 2, 1}, {"D#1", -1, 2, 4},
        {"B#1", 1, 1, 3}, {"A#", 0, 0, 2},  {"B#2", 1, 1, 3},
    };
    for (const auto &step : kSteps)
    {
        SCOPED_TRACE(step.key);
        const Bytes attribute = Attribute(step.key);
        const uint64_t before = standin::CallCount("client_get_obj_body_ptr");
        const DataObjHeader *found =
            GetGroupObject(HeaderOf(attribute), PointersTo(groups), &cache);
        EXPECT_EQ(standin::CallCount("client_get_obj_body_ptr") - before,
                  step.looks);
        EXPECT_EQ(found,
                  step.found < 0
                      ? nullptr
                      : HeaderOf(groups[static_cast<size_t>(step.found)]));
        EXPECT_EQ(cache, HeaderOf(groups[static_cast<size_t>(step.cached)]));
    }
    // The library gives no body: that group is passed over.
    standin::SetFault("client_get_obj_body_ptr", 5, 1);
    cache = nullptr;
    const Bytes attribute = Attribute("A#1");
    EXPECT_EQ(GetGroupObject(HeaderOf(attribute), PointersTo(groups), &cache),
              nullptr);
}

constexpr char kIntRows[] =
    "SELECT OID, Key, ParentObjectKey FROM TblIntAttribute ORDER BY OID";

TEST_F(ConfigTest, AListMayBeMissingOrEmpty)
{
    const Listing kRefused = {{Attribute("A#B")}, 7};
    const Listing kEmpty = {};
    const Listing kStrange = {{Attribute("A#1", 0x10)}, 0};
    const std::string kGroups = "com.vexo.tarnu.Config.CfgGroup"; // no table
    const struct
    {
        const char *name;
        const Listing *listing; // NULL: the library's own call, without a list
        std::string interface;
        int result;
        uint64_t freed;
        std::string line; // the first
    } kCases[] = {
        {"no list", nullptr, kIntInterface, 256, 0, "Objects not found: "},
        {"failure with a list", &kRefused, kIntInterface, 256, 1,
         "Objects not found: "},
        {"empty", &kEmpty, kIntInterface, 0, 1, "Timestamp: ["},
        {"no table", &kStrange, kGroups, 0, 1,
         "Couldn't find objType: 10 4051\n"},
    };
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.name);
        gListing = c.listing;
        standin::SetFault("client_get_objects", 0, 1);
        const uint64_t before = standin::CallCount("FreeObjectList");
        Restart(1);
        EXPECT_EQ(OnLoadConfigObjectsCreation(c.interface.c_str(), nullptr),
                  c.result);
        EXPECT_EQ(standin::CallCount("FreeObjectList") - before, c.freed);
        EXPECT_TRUE(LogLines().at(0).starts_with(c.line)) << LogLines()[0];
        EXPECT_EQ(StepCount(""), 0);
    }
}

TEST_F(ConfigTest, AnObjectThatFailsStopsNobody)
{
    constexpr size_t kNameWord = 0x20; // where an attribute has its DisplayName
    const char *kMap = "insert into ActiveOIDMapping";
    const char *kRow = "INSERT OR REPLACE INTO TblIntAttribute";
    const Bytes kFirst = Attribute("A#1", 1);
    const Bytes kSecond = Attribute("A#2", 2);
    const Bytes kThird = Attribute("A#3", 3);
    const Bytes kKeyless = With(kSecond, kSizeWord, 16);
    const Bytes kBad = With(kSecond, kNameWord, 5001);
    const Lines kTwoRows = {"1|A#1|A", "3|A#3|A"};
    // clang-format off
    const struct
    {
        const char *name;
        std::vector<Bytes> objects;
        const char *sql; // of the faults' statement
        std::vector<Fault> faults;
        int result;
        int invalid; // attempts
        int strays;  // objects without a group
        Lines rows;
    } kCases[] = {
        {"no group", {kFirst, Attribute("B#2", 2), kThird}, kMap, {}, 0, 0, 1, {"1|A#1|A", "2|B#2|NULL", "3|A#3|A"}},
        {"no key", {kFirst, kKeyless, kThird}, kMap, {}, 0, 0, 1, {"1|A#1|A", "2|NULL|NULL", "3|A#3|A"}},
        {"bad", {kFirst, kBad, kThird}, kMap, {}, -1, 100, 0, kTwoRows},
        {"busy", {kSecond, kFirst, kThird}, kMap, {{5, 200}}, -1, 0, 0, kTwoRows},
        {"corrupt", {kSecond, kFirst, kThird}, kRow, {{11, 2}}, 11, 0, 0, kTwoRows},
        {"corrupt, then bad", {kThird, kBad, kFirst}, kRow, {{11, 2}}, -1, 100, 0, {"1|A#1|A"}},
        {"bad, then corrupt", {kBad, kThird, kFirst}, kRow, {{11, 2}}, 11, 100, 0, {"1|A#1|A"}},
    };
    // clang-format on
    const Listing groupListing = {{Group("A")}, 0};
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(ClearTableData("ActiveOIDMapping"), 0);
        gListing = &groupListing;
        ConfigObjectList groups;
        ASSERT_EQ(groups.Fetch(kConfigGroup), 0);
        const Listing listing = {c.objects, 0};
        gListing = &listing;
        Restart();
        FailSteps(c.sql, c.faults);
        EXPECT_EQ(OnLoadConfigObjectsCreation(kIntInterface, &groups),
                  c.result);
        EXPECT_EQ(mirror_.Rows(kIntRows), c.rows);
        EXPECT_EQ(SleepCount(), 0);
        EXPECT_EQ(CountLog("Create failure: 8216 2 4051\n"), c.invalid);
        EXPECT_EQ(CountLog("Couldn't find group: 2 4051\n"), c.strays);
    }
}

TEST_F(ConfigTest, LoadsMayRunAtOnce)
{
    constexpr int kEach = 40;
    std::vector<std::jthread> threads;
    for (const char *kind : {"Int", "Str", "Enum", "Passwd"})
    {
        const std::string interface =
            std::string("com.vexo.tarnu.Config.Cfg") + kind + "Attribute";
        for (int i = 0; i < kEach; ++i)
        {
            // Neighbours in the list belong to different groups.
            PutAttribute(interface.c_str(), "A." + std::to_string(i % 13) +
                                                "#X." + std::to_string(i) +
                                                "#" + kind);
        }
        threads.emplace_back(
            [interface]
            {
                ConfigObjectList groups;
                EXPECT_EQ(groups.Fetch(kConfigGroup), 0);
                EXPECT_EQ(
                    OnLoadConfigObjectsCreation(interface.c_str(), &groups), 0);
            });
    }
    threads.clear();
    for (const std::string kind : {"Int", "Str", "Enum", "Passwd"})
    {
        EXPECT_EQ(mirror_.Value("SELECT count(*) FROM Tbl" + kind +
                                "Attribute WHERE Key = ParentObjectKey || '#" +
                                kind + "'"),
                  std::to_string(kEach));
    }
}

TEST_F(ConfigTest, TheReloadLeavesTheGate)
{
    ASSERT_TRUE(EnterGate());
    ReloadConfigObjectsThread(nullptr);
    const auto shut = []
    {
        alarm(30);
        ShutGate();
        std::_Exit(0);
    };
    EXPECT_EXIT(shut(), ::testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace qdb::test

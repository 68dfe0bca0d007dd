// The bulk load of configuration attributes, and the reload after a detach.
#include "config/config_load.h"
#include "config/config_objects.h"
#include "core/gate.h"
#include "db/clearing.h"
#include "tests/support/config_bytes.h"
#include "tests/support/db_fixture.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
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

uintptr_t *CopyOf(const Listing &listing)
{
    auto *list = static_cast<uintptr_t *>(
        std::calloc(listing.objects.size() + 1, sizeof(uintptr_t)));
    for (const Bytes &object : listing.objects)
    {
        void *copy = std::malloc(object.size());
        std::memcpy(copy, object.data(), object.size());
        list[++list[0]] = reinterpret_cast<uintptr_t>(copy);
    }
    return list;
}

} // namespace
} // namespace qdb::test

// Takes the place of the library's in this program.
int client_get_objects(const char *interfaceName, const char *filter,
                       uintptr_t **ppList)
{
    using Function = int (*)(const char *, const char *, uintptr_t **);
    static const auto original =
        reinterpret_cast<Function>(dlsym(RTLD_NEXT, "client_get_objects"));
    EXPECT_STREQ(filter, "");
    if (qdb::test::gListing == nullptr)
    {
        return original(interfaceName, filter, ppList);
    }
    *ppList = qdb::test::CopyOf(*qdb::test::gListing);
    return qdb::test::gListing->status;
}

namespace qdb::test
{
namespace
{

struct LoadTest : DbTest
{
    ~LoadTest() override
    {
        gListing = nullptr;
    }
};

// The lines so far; the duration's number is left out.
Lines LinesWithoutTimes()
{
    Lines lines = LogLines();
    for (std::string &line : lines)
    {
        if (line.starts_with("Timestamp: ["))
        {
            line = "Timestamp";
        }
    }
    return lines;
}

constexpr char kIntRows[] =
    "SELECT OID, Key, ParentObjectKey FROM TblIntAttribute ORDER BY OID";

struct Kind
{
    const char *interface;
    const char *table;
};
constexpr Kind kKinds[] = {
    {kIntInterface, "TblIntAttribute"},
    {kStrInterface, "TblStrAttribute"},
    {kEnumInterface, "TblEnumAttribute"},
    {kPasswdInterface, "TblPasswdAttribute"},
};

TEST_F(LoadTest, AListMayBeMissingOrEmpty)
{
    const Listing kRefused = {{Attribute("A#B")}, 7};
    const Listing kEmpty = {};
    const Lines kNotFound = {
        "Objects not found: com.vexo.tarnu.Config.CfgIntAttribute\n"};
    const struct
    {
        const char *name;
        const Listing *listing; // NULL: the library's own call
        int fault;              // its status then, without a list
        int result;
        uint64_t freed;
        Lines lines;
    } kCases[] = {
        {"failure", nullptr, 5, 256, 0, kNotFound},
        {"no list", nullptr, 0, 256, 0, kNotFound},
        {"failure with a list", &kRefused, 0, 256, 1, kNotFound},
        {"empty", &kEmpty, 0, 0, 1, {"Timestamp"}},
    };
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.name);
        gListing = c.listing;
        standin::SetFault("client_get_objects", c.fault, 1);
        const uint64_t before = standin::CallCount("FreeObjectList");
        CaptureLog(1);
        EXPECT_EQ(OnLoadConfigObjectsCreation(kIntInterface, nullptr),
                  c.result);
        EXPECT_EQ(standin::CallCount("FreeObjectList") - before, c.freed);
        EXPECT_EQ(LinesWithoutTimes(), c.lines);
        EXPECT_EQ(mirror_.Rows(kIntRows), Lines());
    }
    // Objects of an interface that has no table are passed over.
    const Listing listing = {{Attribute("A#1", 0x10)}, 0};
    gListing = &listing;
    Restart(1);
    EXPECT_EQ(
        OnLoadConfigObjectsCreation("com.vexo.tarnu.Config.CfgGroup", nullptr),
        0);
    EXPECT_EQ(LinesWithoutTimes(),
              (Lines{"Couldn't find objType: 10 4051\n", "Timestamp"}));
    EXPECT_EQ(StepCount(""), 0);
}

// Where an Int attribute has its DisplayName.
constexpr size_t kNameWord = 0x20;

TEST_F(LoadTest, AnObjectThatFailsStopsNobody)
{
    const char *kMap = "insert into ActiveOIDMapping";
    const char *kRow = "INSERT OR REPLACE INTO TblIntAttribute";
    const Bytes kFirst = Attribute("A#1", 1);
    const Bytes kSecond = Attribute("A#2", 2);
    const Bytes kThird = Attribute("A#3", 3);
    const Bytes kStray = Attribute("B#2", 2);
    const Bytes kKeyless = With(kSecond, kSizeWord, 16);
    const Bytes kBad = With(kSecond, kNameWord, 5001);
    const Lines kTwoRows = {"1|A#1|A", "3|A#3|A"};
    const Lines kOtherRows = {"2|A#2|A", "3|A#3|A"};
    const Lines kCorrupt = Failure(11) + Failure(11);
    const Lines kThenCorrupt = {"retval = 11\n",
                                "Set ReturnStatus as Failure. ReturnStatus "
                                "before update = -1\n"};
    const Lines kThenBad = {"ReturnStatus before update = 11\n"};
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
        Lines statuses; // lines
    } kCases[] = {
        {"no group", {kFirst, kStray, kThird}, kMap, {}, 0, 0, 1,
         {"1|A#1|A", "2|B#2|NULL", "3|A#3|A"}, {}},
        {"no key", {kFirst, kKeyless, kThird}, kMap, {}, 0, 0, 1,
         {"1|A#1|A", "2|NULL|NULL", "3|A#3|A"}, {}},
        {"bad", {kFirst, kBad, kThird}, kMap, {}, -1, 100, 0, kTwoRows, {kUsedUp}},
        {"mapped", {kFirst, kSecond, kThird}, kMap, {{19, 100}}, -1, 0, 0, kOtherRows, Failure(-1)},
        {"busy", {kFirst, kSecond, kThird}, kMap, {{5, 200}}, -1, 0, 0, kOtherRows, Failure(-1)},
        {"corrupt", {kSecond, kFirst, kThird}, kRow, {{11, 2}}, 11, 0, 0, kTwoRows,
         kCorrupt + Failure(11)},
        {"corrupt, then bad", {kThird, kBad, kFirst}, kRow, {{11, 2}}, -1, 100, 0,
         {"1|A#1|A"}, kCorrupt + Failure(11) + kThenBad},
        {"bad, then corrupt", {kBad, kThird, kFirst}, kRow, {{11, 2}}, 11, 100, 0,
         {"1|A#1|A"}, Lines{kUsedUp} + kCorrupt + kThenCorrupt},
    };
    // clang-format on
    const Bytes group = Group("A");
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(ClearTableData("ActiveOIDMapping"), 0);
        const Listing groupListing = {{group}, 0};
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
        EXPECT_EQ(CountLog(kInvalid), c.invalid);
        EXPECT_EQ(CountLog("Couldn't find group: 2 4051\n"), c.strays);
        EXPECT_EQ(LinesWith({"retval = ", "ReturnStatus before"}), c.statuses);
        EXPECT_EQ(CountLog("Timestamp: ["), 1);
    }
}

TEST_F(LoadTest, LoadsMayRunAtOnce)
{
    constexpr int kEach = 40;
    for (const Kind &kind : kKinds)
    {
        for (int i = 0; i < kEach; ++i)
        {
            // Neighbours in the list belong to different groups.
            PutAttribute(kind.interface, "A." + std::to_string(i % 13) + "#X." +
                                             std::to_string(i) + "#" +
                                             kind.table);
        }
    }
    std::vector<std::jthread> threads;
    for (const Kind &kind : kKinds)
    {
        threads.emplace_back(
            [&kind]
            {
                ConfigObjectList groups;
                EXPECT_EQ(groups.Fetch(kConfigGroup), 0);
                EXPECT_EQ(OnLoadConfigObjectsCreation(kind.interface, &groups),
                          0);
            });
    }
    threads.clear();
    for (const Kind &kind : kKinds)
    {
        EXPECT_EQ(mirror_.Value("SELECT count(*) FROM " +
                                std::string(kind.table) +
                                " WHERE Key = ParentObjectKey || '#' || '" +
                                kind.table + "'"),
                  std::to_string(kEach));
    }
}

// What the reload makes of failures is recorded in the stream.
TEST_F(LoadTest, TheReloadLeavesTheGate)
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

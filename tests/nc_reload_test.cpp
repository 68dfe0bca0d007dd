// The reloads of memory, host power and FRUs: what each reads, writes and
// leaves alone.
//
// What the reloads keep lives as long as the process. A test therefore brings
// it to a known state first, or uses OIDs of its own.

#include "events/dispatch.h"
#include "reconcile/fru_cache.h"
#include "reconcile/fru_reload.h"
#include "reconcile/memory_reload.h"
#include "tests/support/config_bytes.h"
#include "tests/support/reload_fixture.h"

namespace qdb::test
{
namespace
{

constexpr uint16_t kMemory = 0xE1;
constexpr uint16_t kPower = 0x36;
constexpr uint16_t kFru = 0x42;

Bytes Memory(uint32_t oid, const std::string &key, int typeDetail = 0,
             int endurance = 0)
{
    return MakeObject(kMemory, oid,
                      R"({"Key": ")" + key + R"(", "TypeDetail": )" +
                          std::to_string(typeDetail) +
                          R"(, "RemainingRatedWriteEndurance": )" +
                          std::to_string(endurance) + "}");
}

Bytes Power(uint32_t oid, int state)
{
    return MakeObject(kPower, oid,
                      R"({"powerState": )" + std::to_string(state) + "}");
}

Bytes Fru(uint32_t oid, const std::string &serial,
          const std::string &key = "Disk.Bay.1")
{
    return MakeObject(kFru, oid,
                      R"({"Key": ")" + key + R"(", "SerialNumber": ")" +
                          serial + R"("})");
}

TEST_F(NcReload, ChoosesByKeyAndPower)
{
    struct Case
    {
        const char *name;
        const char *memoryKey; // in the row of memory 5; NULL: no row
        int powerRows;         // the first is of power object 7, state 1
        int powerState;        // in the Data Manager; -1: no object
        size_t parents;
        const char *faulty; // statement
        Fault fault;
        const char *lost; // call that gives NULL once
        int result;
        Lines calls;
    };
    const std::string remove = "DELETE FROM ActiveOIDMapping WHERE Oid";
    const std::string count = "SELECT count(*) FROM TblHostPower";
    // clang-format off
    const Case cases[] = {
        {"valid key", "DIMM.A1", 0, -1, 0, "", {}, "", 0, {}},
        {"no row", nullptr, 0, -1, 0, "", {}, "", 0, {}},
        {"invalid key", "DIM.A1", 0, -1, 0, "", {}, "", 0, {"Delete 5", "Create 5"}},
        {"delete fails", "DIM.A1", 0, -1, 0, remove.c_str(), {1, 2}, "", -1, {"Delete 5"}},
        {"delete corrupt", "DIM.A1", 0, -1, 0, remove.c_str(), {11, 2}, "", 11, {"Delete 5"}},
        {"create corrupt", "DIM.A1", 0, -1, 0, kMapping.c_str(), {11, 1}, "", 11, {"Delete 5", "Create 5"}},
        {"memory unlisted", "DIM.A1", 1, 2, 1, "", {}, "ZOILListChildOIDByType", 256, {"Delete 7", "Create 7"}},
        {"memory gone", "DIM.A1", 1, 2, 1, "", {}, "ZOILGetObjByOID", 256, {"Delete 7", "Create 7"}},
        {"gone, then fails", "DIM.A1", 1, 2, 1, remove.c_str(), {1, 2}, "ZOILGetObjByOID", -1, {"Delete 7"}},
        {"same power", nullptr, 1, 1, 1, "", {}, "", 0, {}},
        {"another state", nullptr, 1, 0, 1, "", {}, "", 0, {"Delete 7", "Create 7"}},
        {"another count", nullptr, 1, 1, 2, "", {}, "", -1, {"Create 7"}},
        {"both differ", nullptr, 2, 0, 1, "", {}, "", -1, {"Create 7"}},
        {"no parents", nullptr, 1, 0, 0, "", {}, "", -1, {"Create 7"}},
        {"parents unlisted", nullptr, 1, 0, 1, "", {}, "ZOILListParentOID", 0, {}},
        {"count unread", nullptr, 1, 1, 0, count.c_str(), {1, 1}, "", 0, {}},
        {"invalid memory first", "DIM.A1", 1, 1, 2, "", {}, "", -1, {"Delete 5", "Create 5", "Create 7"}},
    };
    // clang-format on
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        Clear();
        Put(Memory(5, "DIMM.A1"));
        if (test.memoryKey != nullptr)
        {
            MakeRow(Memory(5, test.memoryKey));
        }
        for (int i = 0; i < test.powerRows; ++i)
        {
            MakeRow(Power(7 + static_cast<uint32_t>(i), 1));
        }
        if (test.powerState >= 0)
        {
            Words parents = {80, 81};
            parents.resize(test.parents);
            Put(Power(7, test.powerState), parents);
        }
        ForgetStatements();
        Restart();
        FailSteps(test.faulty, {test.fault});
        // The parents of memory 5 are listed first.
        standin::SetFault(test.lost, 0, *test.lost == '\0' ? 0 : 1,
                          std::string(test.lost) == "ZOILListParentOID");
        EXPECT_EQ(ReLoadNCObjects(), test.result);
        EXPECT_EQ(Calls(), test.calls);
        if (test.result == 0)
        {
            EXPECT_EQ(mirror_.Rows("SELECT Key FROM TblMemoryInfo"),
                      test.memoryKey == nullptr ? Lines{} : Lines{"DIMM.A1"});
        }
    }
}

// What memory needed is remembered when the power object is judged.
TEST_F(NcReload, TellsOfInvalidMemoryAndPower)
{
    Put(Memory(0xFFFFFFFE, "DIMM.A1"));
    MakeRow(Memory(0xFFFFFFFE, "A1"));
    Put(Power(7, 2), {80});
    MakeRow(Power(7, 1));
    Restart(1);
    EXPECT_EQ(ReLoadNCObjects(), 0);
    const std::string recreating =
        "ReLoadNCObjects: deleting and recreating the object with invalid "
        "data \n";
    EXPECT_EQ(
        LogLines(),
        (Lines{"ReLoadNCObjects: pDOH->objType=e1, OID = fffffffe "
               "memorytype = DIMM, Key is invalid need refresh\n",
               recreating, "Mem refresh:1, power refresh:0, created:0 \n",
               "ReLoadNCObjects: pDOH->objType=36, OID = 7 DM powerstate "
               "= 2 db and dm powerstae not same,need refresh\n",
               recreating, "Mem refresh:1, power refresh:1, created:0 \n"}));
}

// A column that isn't there is an error of the connection, which another thread
// may be about to log as its own.
TEST_F(NcReload, ReadsNoColumnWithoutARow)
{
    Put(Power(7, 2), {80});
    int code = SQLITE_RANGE;
    const LineHook hook("GetHostPowerSate: fpowerstate = 0",
                        [&](int)
                        {
                            code = sqlite3_errcode(QDVdbHandle);
                        });
    EXPECT_EQ(ReLoadNCObjects(), 0);
    EXPECT_EQ(code, SQLITE_DONE);
}

// The first endurance that was seen is kept for the life of the process, and
// what an NVDIMM needs is also done to what follows it.
TEST_F(NcReload, RefreshesWornNvdimms)
{
    constexpr uint32_t kWorn = 0xE1001;
    constexpr uint32_t kDimm = 0xE1002; // behind it in the list
    const auto put = [](int endurance)
    {
        Put(Memory(kWorn, "DIMM.A1", 0x1000, endurance));
    };
    const Lines both = {"Refresh " + Text(kWorn), "Refresh " + Text(kDimm)};
    Put(Memory(kDimm, "DIMM.A2", 0xEFFF, 9));
    MakeRow(Memory(kDimm, "DIMM.A2"));
    put(50);
    MakeRow(Memory(kWorn, "DIMM.A1", 0x1000, 50));
    const struct
    {
        const char *name;
        int endurance;
        Lines calls;
        const char *row;
    } kSteps[] = {
        {"first", 50, {}, "50"},       {"same", 50, {}, "50"},
        {"changed", 49, both, "49"},   {"still changed", 49, both, "49"},
        {"as at first", 50, {}, "49"}, {"of 8 bits", 255, both, "255"},
    };
    for (const auto &step : kSteps)
    {
        SCOPED_TRACE(step.name);
        put(step.endurance);
        Restart();
        EXPECT_EQ(ReLoadNCObjects(), 0);
        EXPECT_EQ(Calls(), step.calls);
        EXPECT_EQ(mirror_.Value("SELECT RemainingRatedWriteEndurance FROM "
                                "TblMemoryInfo WHERE OID = " +
                                Text(kWorn)),
                  step.row);
    }
    // A power object that isn't skipped is refreshed, too.
    Put(Power(0xE1003, 1), {80});
    Restart();
    EXPECT_EQ(ReLoadNCObjects(), 0);
    EXPECT_EQ(Calls(), (both + Lines{"Create " + Text(0xE1003),
                                     "Refresh " + Text(0xE1003)}));

    // More than there is room for: those at the end go unwatched.
    Clear();
    for (const int endurance : {50, 49})
    {
        for (uint32_t i = 0; i < 60; ++i)
        {
            Put(Memory(0xE1100 + i, "DIMM.A1", 0x1000, endurance));
        }
        Restart();
        // There is no row to refresh.
        EXPECT_EQ(ReLoadNCObjects(), endurance == 50 ? 0 : -1);
    }
    ASSERT_EQ(Calls().size(), 47U);
    EXPECT_EQ(Calls().back(), "Refresh " + Text(0xE1100 + 46));
}

TEST_F(NcReload, FetchesUnreadableMemoryAgain)
{
    const struct
    {
        const char *name;
        bool refresh; // a changed NVDIMM; else a create
        int goneAt;
        int mendedAt;
        int lines;
        int result;
        unsigned fetches;
    } cases[] = {
        {"refresh, mended", true, 0, 3, 3, 0, 4},
        {"refresh, never", true, 0, 0, 100, -1, 101},
        {"refresh, vanishes", true, 2, 0, 2, -1, 3},
        {"create, never", false, 0, 3, 100, -1, 1},
    };
    constexpr uint32_t kWorn = 0xE1001;
    for (const auto &test : cases)
    {
        SCOPED_TRACE(test.name);
        Clear();
        const int typeDetail = test.refresh ? 0x1000 : 0;
        MakeRow(Memory(kWorn, test.refresh ? "DIMM.A1" : "A1"));
        Put(Memory(kWorn, "DIMM.A1", typeDetail, 50));
        if (test.refresh)
        {
            EXPECT_EQ(ReLoadNCObjects(), 0);
        }
        const Bytes changed = Memory(kWorn, "DIMM.A1", typeDetail, 49);
        Put(Broken(changed, 0x18));
        const uint64_t before = standin::CallCount("ZOILGetObjByOID");
        const FateHook hook(
            "ReLoadNCObjects: ZO_STATUS_INVALID_VALUE returned\n", test.goneAt,
            []
            {
                Remove(kWorn);
            },
            test.mendedAt,
            [&]
            {
                Put(changed);
            });
        EXPECT_EQ(ReLoadNCObjects(), test.result);
        EXPECT_EQ(hook.Count(), test.lines);
        EXPECT_EQ(standin::CallCount("ZOILGetObjByOID") - before, test.fetches);
        EXPECT_EQ(SleepCount(), 0);
    }
}

// Short objects are read to their end and no further.
TEST_F(NcReload, TakesMissingFieldsForZero)
{
    Bytes memory = Memory(0xE1200, "DIMM.A1", 0x1000, 50);
    memory.resize(0xD1);
    Put(With(memory, kSizeWord, 0xD1));
    Bytes power = Power(7, 3);
    power.resize(0x18);
    Put(With(power, kSizeWord, 0x18), {80});
    MakeRow(Power(7, 0));
    Bytes fru = Fru(5, "S");
    fru.resize(0x1F);
    Put(With(fru, kSizeWord, 0x1F));
    Restart();
    EXPECT_EQ(ReLoadNCObjects(), 0);
    EXPECT_EQ(ReLoadFRUNCObjects(), 0);
    EXPECT_EQ(Calls(), Lines{});
    EXPECT_EQ(CountLog("typedetail = 0\n"), 1);
}

class FruReload : public NcReload
{
  protected:
    static constexpr uint32_t kFirst = 0x42000;
    static constexpr uint32_t kMany = 40;

    FruReload()
    {
        Forget();
    }
    ~FruReload() override
    {
        Forget();
    }

    // By an event, which a cached object notices.
    static void Destroy(uint32_t oid)
    {
        MakeRow(Fru(oid, "A"));
        Remove(oid);
        EXPECT_EQ(ObjectNotification(EventOf(List(8, Words{oid})), 8), 0);
    }

    static void Forget()
    {
        for (uint32_t i = 0; i < kMany; ++i)
        {
            ClearFRUCacheEntry(kFirst + i);
        }
    }
};

TEST_F(FruReload, RefreshesWhatIsNewOrChanged)
{
    const std::string longSerial(100, 'x');
    const Lines refresh = {"Refresh " + Text(kFirst)};
    const struct
    {
        const char *name;
        Bytes object;
        Lines calls;
    } kSteps[] = {
        // clang-format off
        {"no disk", Fru(kFirst, "A", "Disk.Ba.1"), {}},
        {"no key", With(Fru(kFirst, "A"), 0x14, 0), {}},
        {"key outside", With(Fru(kFirst, "A"), 0x14, 4000), {}},
        {"new", Fru(kFirst, "A"), refresh},
        {"same", Fru(kFirst, "A"), {}},
        {"changed", Fru(kFirst, "AB"), refresh},
        {"still changed", Fru(kFirst, "AB"), refresh},
        {"destroyed", {}, {}},
        {"new and too long", Fru(kFirst, longSerial), refresh},
        {"never the same", Fru(kFirst, longSerial), refresh},
        // clang-format on
    };
    for (const auto &step : kSteps)
    {
        SCOPED_TRACE(step.name);
        if (step.object.empty())
        {
            Destroy(kFirst);
            continue;
        }
        Put(step.object);
        Restart();
        EXPECT_EQ(ReLoadFRUNCObjects(), 0);
        EXPECT_EQ(Calls(), step.calls);
    }
}

TEST_F(FruReload, WatchesThirtySix)
{
    for (uint32_t i = 0; i < kMany; ++i)
    {
        Put(Fru(kFirst + i, "A"));
    }
    EXPECT_EQ(ReLoadFRUNCObjects(), 0);
    EXPECT_EQ(Calls().size(), 36U);
    EXPECT_EQ(CountLog("Cache: g_FRUCacheCount=36, OID="), 36);
    EXPECT_EQ(CountLog("Refresh skipped as cached data is same"), 4);
    // A slot that becomes free is the next one's.
    Destroy(kFirst + 3);
    Restart();
    EXPECT_EQ(ReLoadFRUNCObjects(), 0);
    EXPECT_EQ(Calls(), Lines{"Refresh " + Text(kFirst + 36)});
    EXPECT_EQ(CountLog("Cache: g_FRUCacheCount=36, OID="), 36);
}

TEST_F(FruReload, ReportsFailures)
{
    struct Case
    {
        const char *name;
        std::vector<Fault> faults; // of the update's preparation
        const char *lost;
        int goneAt;
        int backAt;
        int result;
        int sleeps;
        const char *row;
    };
    const Case cases[] = {
        {"unlisted", {}, "ZOILListChildOIDByType", 0, 0, 256, 0, "A"},
        {"gone", {}, "ZOILGetObjByOID", 0, 0, 256, 0, "A"},
        {"corrupt", {{11, 1}}, "", 0, 0, -1, 0, "A"},
        {"busy", {{5, 1}, {6, 98}}, "", 0, 0, 0, 99, "B"},
        {"busy for ever", {{5, 100}}, "", 0, 0, -1, 100, "A"},
        {"unreadable", {{8216, 99}}, "", 0, 0, 0, 0, "B"},
        {"unreadable for ever", {{8216, 100}}, "", 0, 0, -1, 0, "A"},
        {"comes back", {{8216, 1}}, "", 1, 4, 256, 0, "B"},
        {"vanishes", {{8216, 1}}, "", 1, 0, -1, 0, "A"},
    };
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        Clear();
        Forget();
        MakeRow(Fru(kFirst, "A"));
        const Bytes object = Fru(kFirst, "B");
        Put(object);
        ForgetStatements();
        FailPrepares("UPDATE TblFRUObj", test.faults);
        standin::SetFault(test.lost, 0, *test.lost == '\0' ? 0 : 1);
        {
            const FateHook hook(
                "ReLoadFRUNCObjects: ZO_STATUS_INVALID_VALUE returned\n",
                test.goneAt,
                []
                {
                    Remove(kFirst);
                },
                test.backAt,
                [&]
                {
                    Put(object);
                });
            EXPECT_EQ(ReLoadFRUNCObjects(), test.result);
        }
        EXPECT_EQ(SleptMicroseconds(), test.sleeps * 110000LL);
        EXPECT_EQ(mirror_.Value("SELECT SerialNumber FROM TblFRUObj"),
                  test.row);
    }
    // A refresh that had no object to run on has no result to tell.
    Forget();
    ForgetStatements();
    Restart();
    FailPrepares("UPDATE TblFRUObj", {{8216, 1}});
    Put(Fru(kFirst, "B"));
    standin::SetFault("ZOILGetObjByOID", 0, 100, 1);
    EXPECT_EQ(ReLoadFRUNCObjects(), -1);
    EXPECT_EQ(LinesWith({"RefreshObjFP retval="}),
              Lines{"ReLoadFRUNCObjects: RefreshObjFP retval=8216 \n"});
}

} // namespace
} // namespace qdb::test

// The reloads of memory, host power and FRUs at their bounds, and with objects
// that change under their hands. What they make of ordinary objects and of
// failures is recorded in the stream.
//
// What the reloads keep lives as long as the process. A test therefore brings
// it to a known state first, or uses OIDs or values of its own.

#include "events/dispatch.h"
#include "reconcile/fail_drain.h"
#include "reconcile/fru_reload.h"
#include "reconcile/memory_reload.h"
#include "tests/support/config_bytes.h"
#include "tests/support/reload_fixture.h"
#include "tests/support/works.h"

namespace qdb::test
{
namespace
{

constexpr uint32_t kWorn = 0xE1001; // an NVDIMM

std::string Text(uint32_t number)
{
    return std::to_string(number);
}

Bytes Memory(uint32_t oid, const std::string &key, int typeDetail = 0,
             int endurance = 0)
{
    return MakeObject(0xE1, oid,
                      R"({"Key": ")" + key + R"(", "TypeDetail": )" +
                          std::to_string(typeDetail) +
                          R"(, "RemainingRatedWriteEndurance": )" +
                          std::to_string(endurance) + "}");
}

Bytes Power(uint32_t oid, int state)
{
    return MakeObject(0x36, oid,
                      R"({"powerState": )" + std::to_string(state) + "}");
}

Bytes Fru(uint32_t oid, const std::string &serial)
{
    return MakeObject(0x42, oid,
                      R"({"Key": "Disk.Bay.1", "SerialNumber": ")" + serial +
                          R"("})");
}

void Remove(uint32_t oid)
{
    EXPECT_EQ(standin::DeleteObjects(Words{oid}, false), "");
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
        {"first", 50, {}, "50"},
        {"changed", 49, both, "49"},
        {"of 8 bits", 255, both, "255"},
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

// A refresh takes what it gets then; a delete and a create try it as it is.
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
        {"create, mended", false, 0, 3, 100, -1, 1},
    };
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
        Put(Broken(changed));
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
    PutShort(Memory(0xE1200, "DIMM.A1", 0x1000, 50), 0xD1);
    PutShort(Power(7, 3), 0x18, {80});
    MakeRow(Power(7, 0));
    PutShort(Fru(5, "S"), 0x1F);
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
        ClearFRUCacheEntry(kWorkOid); // other tests leave it
    }
    ~FruReload() override
    {
        Forget();
    }

    static void Forget()
    {
        for (uint32_t i = 0; i < kMany; ++i)
        {
            ClearFRUCacheEntry(kFirst + i);
        }
    }
};

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
    // A slot that becomes free, by an event, is the next one's.
    MakeRow(Fru(kFirst + 3, "A"));
    Remove(kFirst + 3);
    EXPECT_EQ(ObjectNotification(EventOf(List(8, Words{kFirst + 3})), 8), 0);
    Restart();
    EXPECT_EQ(ReLoadFRUNCObjects(), 0);
    EXPECT_EQ(Calls(), Lines{"Refresh " + Text(kFirst + 36)});
    EXPECT_EQ(CountLog("Cache: g_FRUCacheCount=36, OID="), 36);
}

// A refresh that had no object to run on has no result to tell.
TEST_F(FruReload, FetchesWhatVanishesAgain)
{
    const struct
    {
        int backAt; // 0: never
        int result;
        const char *row;
    } cases[] = {{4, 256, "B"}, {0, -1, "A"}};
    for (const auto &test : cases)
    {
        SCOPED_TRACE(test.backAt);
        Clear();
        Forget();
        MakeRow(Fru(kFirst, "A"));
        Put(Fru(kFirst, "B"));
        ForgetStatements();
        FailPrepares("UPDATE TblFRUObj", {{8216, 1}});
        const FateHook hook(
            "ReLoadFRUNCObjects: ZO_STATUS_INVALID_VALUE returned\n", 1,
            []
            {
                Remove(kFirst);
            },
            test.backAt,
            []
            {
                Put(Fru(kFirst, "B"));
            });
        EXPECT_EQ(ReLoadFRUNCObjects(), test.result);
        EXPECT_EQ(mirror_.Value("SELECT SerialNumber FROM TblFRUObj"),
                  test.row);
    }
}

// An OID may be another object's by the time that its failure comes up.
TEST_F(NcReload, DrainsNoFailureOfAnotherType)
{
    constexpr uint16_t kFailed = 0x16;
    const int index = QdbFailObjTypeIndex(kFailed);
    for (const uint16_t type : {uint16_t{0x17}, kFailed})
    {
        Clear();
        Put(MakeObject(type, 7));
        // The newest one stays.
        QdbFailenQueue(gFailQueue, 7, FailedOperation::RefreshFailure, index);
        QdbFailenQueue(gFailQueue, 8, FailedOperation::RefreshFailure, index);
        DrainFailQueue();
        EXPECT_EQ(Kept().size(), 1U);
        EXPECT_EQ(mirror_.Rows("SELECT OID FROM TblProbeObj"),
                  type == kFailed ? Lines{"7"} : Lines());
    }
}

} // namespace
} // namespace qdb::test

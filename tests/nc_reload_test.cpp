// The reloads of memory, host power and FRUs: their bounds, and objects that
// change under their hands. What they make of ordinary ones and of failures is
// recorded in the stream.
//
// What the reloads keep lives as long as the process. A test therefore brings
// it to a known state first, or uses OIDs of its own.

#include "events/dispatch.h"
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

} // namespace
} // namespace qdb::test

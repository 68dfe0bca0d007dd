// The order of what is announced, with ten workers at the same few objects and
// delays wherever one of them could overtake another: consumers that follow
// the signals alone know the tables.
//
// QDB_TEST_SIGNALS: how many signals at least; 2000 unless given.

#include "tests/support/db_fixture.h"
#include "tests/support/signal_checker.h"

#include <algorithm>
#include <cstdlib>
#include <random>

namespace qdb::test
{
namespace
{

// One that tells old values, one with an array, one in the fail queue's list,
// one that is none of it.
struct Kind
{
    uint16_t type;
    const char *column; // of texts, or of an array of integers
    bool isArray = false;
};
constexpr Kind kKinds[] = {
    {0x703, "current_"},
    {0x801, "ObjTypeList", true},
    {0x16, "ProbeLocation"},
    {0x1001, "popName"},
};
constexpr uint32_t kFirst = 0x100;
constexpr uint32_t kObjects = 8;
constexpr int kEventsPerRound = 300;
// A create of what is there would be waited with for long.
constexpr uint16_t kListTypes[] = {3, 8};

class Churn : public ::testing::Test
{
  protected:
    Churn() : mirror_({.threads = true}), database_(Open())
    {
        RestoreSleeps();
    }
    ~Churn() override
    {
        standin::ReleaseDelays();
        sqlite3_close(database_);
    }

    // Something happens to one of the objects, and is told; or something is
    // told that isn't so.
    void Act()
    {
        const uint32_t number = Below(kObjects);
        const uint32_t oid = kFirst + number;
        const Kind &kind = kKinds[number % std::size(kKinds)];
        bool &isThere = isThere_[number];
        const uint32_t choice = Below(10);
        if (choice == 0)
        {
            standin::SendObjectList(kListTypes[Below(2)], {{oid}});
        }
        else if (!isThere)
        {
            isThere = true;
            PutObject(kind.type, oid, Values(kind), true);
        }
        else if (choice < 5)
        {
            isThere = false;
            EXPECT_EQ(standin::DeleteObjects({{oid}}), "");
        }
        else
        {
            const JsonPtr values(json_loads(Values(kind).c_str(), 0, nullptr));
            EXPECT_EQ(standin::SetObject(oid, values.get()), "");
        }
    }

    std::string Values(const Kind &kind)
    {
        const std::string value = std::to_string(++mark_);
        return std::string("{\"") + kind.column + "\": " +
               (kind.isArray ? "[1, " + value + "]}" : '"' + value + "\"}");
    }

    uint32_t Below(uint32_t limit)
    {
        return static_cast<uint32_t>(engine_() % limit);
    }

    Mirror mirror_;
    ChangeListener listener_;
    sqlite3 *database_;

  private:
    sqlite3 *Open() const
    {
        sqlite3 *database = nullptr;
        EXPECT_EQ(sqlite3_open(mirror_.Root().Database().c_str(), &database),
                  SQLITE_OK);
        sqlite3_busy_timeout(database, 30000);
        return database;
    }

    std::mt19937 engine_{4711};
    bool isThere_[kObjects] = {};
    int mark_ = 0;
};

TEST_F(Churn, IsFollowedByItsSignalsAlone)
{
    const char *given = std::getenv("QDB_TEST_SIGNALS");
    const size_t wanted =
        given == nullptr ? 2000 : static_cast<size_t>(std::atol(given));
    const auto delay = [](const char *call, const char *text, bool late)
    {
        ASSERT_EQ(standin::SetDelay(call, {.microseconds = 1000,
                                           .random = true,
                                           .late = late,
                                           .text = text}),
                  "");
    };
    for (const char *line : {"createObjJsonStr", "Json_Out_Str", "buffer ={"})
    {
        delay("vexoprintf", line, false);
        delay("vexoprintf", line, true);
    }
    delay("ZOILGetObjByOID", "", true);
    SignalChecker checker;
    size_t signals = 0;
    std::string faults;
    for (int round = 0; signals < wanted && faults.empty(); ++round)
    {
        for (int i = 0; i < kEventsPerRound; ++i)
        {
            Act();
        }
        mirror_.Settle();
        for (const Change &change : listener_.TakeAll())
        {
            ++signals;
            const std::string fault = checker.Take(change);
            faults += faults.empty() ? fault : ""; // what follows tells little
        }
        EXPECT_EQ(checker.Judge(RowsIn(audit::ReadSnapshot(database_))), "");
        if (HasFailure())
        {
            break;
        }
    }
    EXPECT_EQ(faults, "");
    RecordProperty("signals", std::to_string(signals));
}

} // namespace
} // namespace qdb::test

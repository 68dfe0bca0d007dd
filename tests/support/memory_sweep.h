// Want of memory, swept: for each kind of work the first, second, ... n-th
// allocation fails, until the work needs no more. Whatever the place, the
// service goes on, nothing stays held or under way, and at most one object is
// behind, until the same work comes again.
#pragma once

#include "db/turn.h"
#include "reconcile/fru_reload.h"
#include "reconcile/key_reload.h"
#include "reconcile/memory_reload.h"
#include "reconcile/type_reload.h"
#include "tests/support/stream_clock.h"
#include "tests/support/works.h"

#include <set>

namespace qdb::test
{

inline void ExpectFree(pthread_mutex_t &mutex)
{
    const int taken = pthread_mutex_trylock(&mutex);
    EXPECT_EQ(taken, 0) << "a mutex is held";
    if (taken == 0)
    {
        pthread_mutex_unlock(&mutex);
    }
}

// No lock is held, no statement is under way, no create waits for a delete.
inline void ExpectIdle()
{
    GiveUpRead();
    for (sqlite3_stmt *statement = sqlite3_next_stmt(QDVdbHandle, nullptr);
         statement != nullptr;
         statement = sqlite3_next_stmt(QDVdbHandle, statement))
    {
        EXPECT_EQ(sqlite3_stmt_busy(statement), 0) << sqlite3_sql(statement);
    }
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        ObjRowState &state = StateOf(row);
        ExpectFree(state.CreateObjMutex);
        ExpectFree(state.RefreshObjMutex);
        ExpectFree(state.DeleteObjMutex);
        ExpectFree(state.SelectObjMutex);
        ExpectFree(state.DeleteWaitMutex);
        EXPECT_EQ(state.DeletingOID, ObjRowState::kNoOid);
    }
    for (pthread_mutex_t *mutex :
         {&gReLoadNCMutex, &gReLoadFRUNCMutex, &gReLoadKeyBasedNCMutex,
          &gObjTypeBasedNCMutex, &SqliteStepMutex})
    {
        ExpectFree(*mutex);
    }
}

// The clock stands still, so that tags don't differ.
class NoMemory : StreamClock, public Handler
{
  protected:
    NoMemory()
    {
        IgnoreSqlite();
    }

    // An empty mirror and Data Manager, and nobody who hears of it.
    void Reset()
    {
        CaptureLog(1);
        standin::Reset();
        TakeQueued();
        Kept();
        GiveUpRead();
        Rows("DELETE FROM ActiveOIDMapping");
    }

    // By the service's own connection: another one reads the whole schema.
    static Lines Rows(const std::string &sql)
    {
        Lines rows;
        const auto append = [](void *to, int count, char **values, char **)
        {
            std::string row;
            for (int i = 0; i < count; ++i)
            {
                row += values[i] == nullptr ? "NULL" : values[i];
                row += "|";
            }
            static_cast<Lines *>(to)->push_back(row);
            return 0;
        };
        EXPECT_EQ(
            sqlite3_exec(QDVdbHandle, sql.c_str(), append, &rows, nullptr),
            SQLITE_OK);
        return rows;
    }

    // What the work leaves: rows, links, and records.
    static Lines State(const Work &work)
    {
        Lines state;
        for (const std::string &table :
             work.tables + Lines{"ActiveOIDMapping", "ParentChildMapping"})
        {
            for (const std::string &row :
                 Rows("SELECT * FROM " + table + " ORDER BY OID"))
            {
                state.push_back(table + " " + row);
            }
        }
        // A repeated signal makes a second record.
        std::set<std::string> queued;
        for (const Bytes &record : TakeQueued())
        {
            queued.emplace(record.begin(), record.end());
        }
        state.insert(state.end(), queued.begin(), queued.end());
        return state;
    }

    std::multiset<std::string> Signals()
    {
        std::multiset<std::string> signals;
        for (const Change &change : listener_.TakeAll())
        {
            signals.insert(change.member + " " + change.json);
        }
        return signals;
    }

    static int Mapped()
    {
        return static_cast<int>(
            Rows("SELECT OID FROM ActiveOIDMapping").size());
    }

    void Begin(const Work &work)
    {
        DbusEventsEnabled = 0;
        Reset();
        work.begin();
        DbusEventsEnabled = 1;
        work.feed();
    }

    static void Run(const Work &work)
    {
        work.run();
        work.settle();
    }

    // Returns how many allocations the work needs. At first all fail.
    int Sweep(const Work &work, Caller caller = Caller::Service)
    {
        SCOPED_TRACE(work.name);
        Begin(work);
        Run(work);
        const int mapped = Mapped();
        const Lines state = State(work);
        work.feed();
        Run(work);
        const std::multiset<std::string> signals = Signals();
        bool failed = true;
        int n = 0;
        for (; failed && !HasFailure(); ++n)
        {
            SCOPED_TRACE("allocation " + std::to_string(n));
            Begin(work);
            {
                const NoMemoryAt here(n, caller);
                tNoMemory = n == 0;
                work.run();
                tNoMemory = false;
                failed = here.HasFailed();
            }
            work.settle();
            ExpectIdle();
            EXPECT_LE(n == 0 ? 0 : std::abs(Mapped() - mapped), failed ? 1 : 0);
            if (failed && !work.isOnce)
            {
                work.feed();
                Run(work);
                ExpectIdle();
            }
            if (!failed || !work.isOnce)
            {
                EXPECT_EQ(State(work), state);
            }
        }
        // Nothing is announced by halves, or more often than is due.
        const std::multiset<std::string> seen = Signals();
        for (const std::string &signal :
             std::set<std::string>(seen.begin(), seen.end()))
        {
            EXPECT_TRUE(work.leavesOut ||
                        seen.count(signal) <=
                            signals.count(signal) * static_cast<size_t>(n))
                << signal;
        }
        return n - 2;
    }

    // Each kind of work needs some memory, or is not what it is taken for.
    void SweepAll(const std::vector<Work> &works)
    {
        for (const Work &work : works)
        {
            EXPECT_GT(Sweep(work), 0) << work.name;
        }
    }
};

} // namespace qdb::test

// Owners for prepared statements.
//
// A long-lived statement sits in a slot: prepared on first use, used under the
// lock that guards the slot, kept until all statements are finalised. Where no
// lock may be held during a step, a pool lends copies of one. A one-shot
// statement belongs to the function that prepared it.
#pragma once

#include "db/statement_ptr.h"

#include <pthread.h>

namespace qdb
{

// A long-lived statement. Constant-initialised and never destroyed: it must
// outlive every thread.
struct StatementSlot
{
    sqlite3_stmt *statement = nullptr;

    // Prepares the statement if the slot is empty. Returns 0, or the status of
    // a failed prepare, after which the slot is still empty. *pWasReady tells
    // whether it was full before.
    int Prepare(const char *sql, int length, bool *pWasReady);

    void Finalize();
};

// Statements of one text that wait for their next user, so that a text that
// many threads run isn't compiled each time. Constant-initialised and never
// destroyed.
class StatementPool
{
  public:
    // A statement of the text, or a new one when none waits. Returns 0 and sets
    // *pStatement, or the status of a failed prepare. Takes the pool's mutex, a
    // leaf.
    int Take(const char *sql, StatementPtr *pStatement);

    // Takes a statement back, clean; more than there are workers aren't kept.
    // NULL is a no-op. Takes the pool's mutex.
    void Give(StatementPtr statement);

    void Finalize();

  private:
    static constexpr size_t kCapacity = 12;

    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    sqlite3_stmt *waiting_[kCapacity] = {}; // guarded by mutex_
    size_t count_ = 0;                      // guarded by mutex_
};

// A pool's statement for the time of a scope.
class LentStatement
{
  public:
    LentStatement(StatementPool &pool, const char *sql)
        : pool_(pool), status_(pool.Take(sql, &statement_))
    {
    }
    ~LentStatement()
    {
        pool_.Give(std::move(statement_));
    }
    LentStatement(const LentStatement &) = delete;
    LentStatement &operator=(const LentStatement &) = delete;

    // 0, or the status of a failed prepare.
    int Status() const
    {
        return status_;
    }

    // NULL when it could not be prepared.
    sqlite3_stmt *Get() const
    {
        return statement_.get();
    }

  private:
    StatementPool &pool_;
    StatementPtr statement_;
    int status_;
};

// Clears the bindings of a statement and resets it when the scope ends, so
// that the next user finds it as new.
class StatementReset
{
  public:
    explicit StatementReset(sqlite3_stmt *statement) : statement_(statement)
    {
    }
    ~StatementReset()
    {
        sqlite3_clear_bindings(statement_);
        sqlite3_reset(statement_);
    }
    StatementReset(const StatementReset &) = delete;
    StatementReset &operator=(const StatementReset &) = delete;

  private:
    sqlite3_stmt *statement_;
};

} // namespace qdb

// Owners for prepared statements.
//
// A long-lived statement sits in a slot: prepared on first use, used under the
// lock that guards the slot, kept until all statements are finalised. A
// one-shot statement belongs to the function that prepared it.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <span>

namespace qdb
{

struct FinalizeStatement
{
    void operator()(sqlite3_stmt *statement) const
    {
        sqlite3_finalize(statement);
    }
};
using StatementPtr = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

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

#include "db/statement.h"

#include "core/lock.h"
#include "core/state.h"
#include "db/connection.h"

namespace qdb
{

int StatementSlot::Prepare(const char *sql, int length, bool *pWasReady)
{
    *pWasReady = statement != nullptr;
    if (*pWasReady)
    {
        return SQLITE_OK;
    }
    return sqlite3_prepare_v2(QDVdbHandle, sql, length, &statement, nullptr);
}

void StatementSlot::Finalize()
{
    sqlite3_finalize(statement);
    statement = nullptr;
}

int StatementPool::Take(const char *sql, StatementPtr *pStatement)
{
    {
        const LeafLock lock(mutex_);
        if (count_ > 0)
        {
            pStatement->reset(waiting_[--count_]);
            return SQLITE_OK;
        }
    }
    int status = SQLITE_OK;
    StatementPtr prepared = PrepareOnce(sql, &status);
    if (status == SQLITE_OK)
    {
        *pStatement = std::move(prepared);
    }
    return status;
}

void StatementPool::Give(StatementPtr statement)
{
    if (statement == nullptr)
    {
        return;
    }
    sqlite3_clear_bindings(statement.get());
    sqlite3_reset(statement.get());
    const LeafLock lock(mutex_);
    if (count_ < kCapacity)
    {
        waiting_[count_++] = statement.release();
    }
}

void StatementPool::Finalize()
{
    const LeafLock lock(mutex_);
    while (count_ > 0)
    {
        sqlite3_finalize(waiting_[--count_]);
    }
}

} // namespace qdb

#include "db/execute.h"

#include "core/lock.h"
#include "core/log.h"
#include "core/sleep.h"
#include "core/state.h"
#include "core/statistics.h"
#include "core/waiting.h"
#include "db/turn.h"

namespace qdb
{
namespace
{

// How long the reads that are under way may take to end.
constexpr int kAbortedAttempts = 1000;
constexpr unsigned kAbortedPauseMicroseconds = 1000;

thread_local int tLastStepStatus = SQLITE_OK;

// What SQLite answers at once while a read is open on the connection: it then
// doesn't wait for others, and all statements answer ABORT once one of them
// could not be undone.
bool MayBeOurRead(int status)
{
    return IsBusy(status) || status == SQLITE_ABORT;
}

int Step(sqlite3_stmt *statement)
{
    const int status = sqlite3_step(statement);
    CountRowChanges(IsSuccess(status));
    return status;
}

// A statement is fresh until it has given a row. Only a fresh one is stepped
// again: from its start, the other one would give the same rows twice.
int StepOnce(sqlite3_stmt *statement, bool isFresh)
{
    const LeafLock lock(SqliteStepMutex);
    NoteStep();
    int status = Step(statement);
    if (MayBeOurRead(status) && GiveUpRead() && isFresh)
    {
        // A statement that is blocked counts as a reader itself.
        sqlite3_reset(statement);
        status = Step(statement);
    }
    // The row that a reader stands on is the cheapest moment to keep the read:
    // its statement holds the lock already.
    if (status == SQLITE_ROW)
    {
        KeepRead();
    }
    if (IsBusy(status))
    {
        // Left as it is, a statement that waits keeps the read lock of the
        // whole connection; another process that holds the write lock then
        // waits for that one, and neither gets on.
        sqlite3_reset(statement);
    }
    NoteProgress();
    return status;
}

} // namespace

// Without a journal, a statement that fails behind its first write (as one
// whose mapping a destroy has just taken away) can't be undone. SQLite then
// drops its cache, and gives ABORT to every statement of the connection until
// no read is under way any more. It means none of those statements: a fresh one
// just begins again, and one that has given rows fails.
int StepStatement(sqlite3_stmt *statement)
{
    const bool isFresh = sqlite3_stmt_busy(statement) == 0;
    int status = StepOnce(statement, isFresh);
    for (int attempt = 1;
         status == SQLITE_ABORT && isFresh && attempt < kAbortedAttempts;
         ++attempt)
    {
        // Others' reads have to end, and theirs may wait for our turn.
        sqlite3_reset(statement);
        GiveUpTurn();
        SleepMicroseconds(kAbortedPauseMicroseconds);
        status = StepOnce(statement, isFresh);
    }
    if (IsBusy(status))
    {
        CountOne(Figures().refused,
                 status == SQLITE_BUSY ? BusyStatus::Busy : BusyStatus::Locked);
    }
    tLastStepStatus = status;
    return status;
}

int LastStepStatus()
{
    return tLastStepStatus;
}

int StatusBehind(int status)
{
    return status == kFailed && !IsSuccess(tLastStepStatus) ? tLastStepStatus
                                                            : status;
}

int execute_statement(sqlite3_stmt *statement)
{
    if (statement == nullptr)
    {
        tLastStepStatus = kFailed;
        QDB_LOG(kLogTrace, "%s: Error: stmt is NULL");
        return kFailed;
    }
    const int status = RunStatusLoop({}, 0,
                                     [&]
                                     {
                                         return StepStatement(statement);
                                     });
    return IsSuccess(status) ? SQLITE_OK : kFailed;
}

void SleepForBusy(unsigned microseconds)
{
    constexpr uint64_t kMicrosecond = 1000;
    SleepMicroseconds(microseconds);
    Count(Figures().busyNanoseconds, kMicrosecond * microseconds);
}

Verdict JudgeAttempt(int status, RetryRule rule, int returnStatus)
{
    NoteProgress();
    if (IsSuccess(status))
    {
        return Verdict::Done;
    }
    if (IsBusy(status))
    {
        GiveUpTurn();
        QDB_LOG(kLogTrace, "%s: \nStatusCheck:Retry\n");
        if (rule.pauseWhenBusy && !(rule.endsAtStop && StopPatienceIsOver()))
        {
            SleepForBusy(kBusyPauseMicroseconds);
        }
        return Verdict::Again;
    }
    if (status == ZO_STATUS_INVALID_VALUE)
    {
        GiveUpTurn();
        QDB_LOG(kLogTrace, "%s: \n Inavlid value received\n");
        return Verdict::Again;
    }
    QDB_LOG(kLogTrace, "%s: retval = %d\n", status);
    QDB_LOG(kLogTrace,
            "%s: Set ReturnStatus as Failure. ReturnStatus before update = "
            "%d\n",
            returnStatus);
    return Verdict::Failed;
}

void LogAttemptsUsedUp(int returnStatus)
{
    QDB_LOG(kLogTrace, "%s: ReturnStatus before update = %d\n", returnStatus);
}

} // namespace qdb

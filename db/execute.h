// Steps and retries: the one policy for a database that may be busy.
//
// A status loop runs an operation up to 100 times. Success ends it; BUSY and
// LOCKED are waited out, 110 ms each; ZO_STATUS_INVALID_VALUE is tried again at
// once; anything else ends it as a failure. No lock of this file is held while
// a loop sleeps. Two seconds after a stop was requested a loop that meets a
// busy database counts as used up.
#pragma once

#include "core/status.h"
#include "core/threads.h"

#include <sqlite3.h>

namespace qdb
{

inline constexpr int kAttempts = 100;
inline constexpr unsigned kBusyPauseMicroseconds = 110000;

// sqlite3_step under SqliteStepMutex. A statement that finds the database busy
// starts anew at the next step, with its bindings. One that another statement's
// failure has aborted (status 4) is stepped again for a second, unless it has
// given a row already: then that status is its failure.
int StepStatement(sqlite3_stmt *statement);

// Steps a bound statement in a status loop. Returns 0 when a step succeeded,
// also with a row, which can then be read; -1 otherwise. Doesn't reset the
// statement. NULL fails.
int execute_statement(sqlite3_stmt *statement);

// The status of this thread's last step; tells why execute_statement failed.
int LastStepStatus();

struct RetryRule
{
    bool pauseWhenBusy = true;
    bool endsAtStop = true;
};

// What a failure was: for kFailed, the status of the calling thread's last step
// if that failed.
int StatusBehind(int status);

// SleepMicroseconds, for the sake of a busy database.
void SleepForBusy(unsigned microseconds);

enum class Verdict
{
    Done,
    Again,
    Failed,
};

// What one attempt's status means: logs it, and pauses if that is due.
// returnStatus is the caller's result so far, for the log line.
Verdict JudgeAttempt(int status, RetryRule rule, int returnStatus);

// Logs that all attempts are used up.
void LogAttemptsUsedUp(int returnStatus);

// Runs `operation` in a status loop. When it gives ZO_STATUS_INVALID_VALUE
// `onInvalid` runs before the attempt counts; what it returns replaces the
// status, so that another value than ZO_STATUS_INVALID_VALUE ends the loop.
// Returns the last status: a success, or what the failure was. The callbacks
// may change returnStatus.
template <typename Operation, typename OnInvalid>
int RunStatusLoop(RetryRule rule, const int &returnStatus, Operation operation,
                  OnInvalid onInvalid)
{
    int status = SQLITE_OK;
    for (int attempt = 0; attempt < kAttempts; ++attempt)
    {
        status = operation();
        if (status == ZO_STATUS_INVALID_VALUE)
        {
            status = onInvalid();
        }
        const Verdict verdict = JudgeAttempt(status, rule, returnStatus);
        if (verdict != Verdict::Again)
        {
            return status;
        }
        if (rule.endsAtStop && IsBusy(status) && StopPatienceIsOver())
        {
            break;
        }
    }
    LogAttemptsUsedUp(returnStatus);
    return status;
}

template <typename Operation>
int RunStatusLoop(RetryRule rule, const int &returnStatus, Operation operation)
{
    return RunStatusLoop(rule, returnStatus, operation,
                         []
                         {
                             return ZO_STATUS_INVALID_VALUE;
                         });
}

} // namespace qdb

// Turns at the database, and the read that is kept open over them.
//
// SQLite takes the file's shared lock for each statement anew, and looks at the
// file again each time, unless a read is open already; and threads that hand
// one mutex around at every step are slower than one. A handler therefore does
// its statements in one turn, and the first row that it reads leaves a read of
// ours open, which the next turn finds if there is more to do.
//
// The turn's rule: whoever has it waits for nothing but SQLite. It may meet
// - SQLite's own locks, and so another process, for the busy time-out;
// - SqliteStepMutex, whose holder is in one step;
// - leaves (LeafLock, PlatformLock), whose holders wait for nothing: those of
//   lists, queues and the telemetry pipe;
// - a log call.
// For everything else it is given up first: a sleep or a repeat (GiveUpTurn),
// a statement mutex whose holder may sleep (StatementLock), a call of the
// platform about an object, the bus, a claim, a handler mutex. What may wait
// asserts that (core/waiting.h). A thread that has given its turn up does the
// rest of its statements without one: turns order nothing, they only save time.
//
// The read: each statement commits by itself and is visible to everybody when
// its step has returned, read or no read. A read is open only while somebody
// has the turn, or while a ReadWatch lives and more work is at hand. It is
// given up
// 1. with the turn, unless somebody waits for the next one or has more to do;
// 2. by a step that answers BUSY, LOCKED or ABORT beside it (StepStatement),
//    since SQLite then doesn't wait, and since the read may be what keeps
//    another process from writing;
// 3. by the watch, when nobody has stepped beside it for a moment: whoever
//    should have used it may wait for a Data Manager that doesn't answer.
#pragma once

#include <pthread.h>

namespace qdb
{

// The turn of one handler; waits until it comes. A thread has one at a time.
// Its end may change what sqlite3_errmsg says, so failures are logged before.
class DbTurn
{
  public:
    DbTurn();
    ~DbTurn();

    // Ends the turn, unless it has ended already, also by GiveUpTurn.
    void End();

    DbTurn(const DbTurn &) = delete;
    DbTurn &operator=(const DbTurn &) = delete;
};

// Ends this thread's turn, if it has one, and the read with it. Before every
// sleep and repeat.
void GiveUpTurn();

// The lock of a statement whose holder may sleep: tried first, and waited for
// without the turn.
class StatementLock
{
  public:
    explicit StatementLock(pthread_mutex_t &mutex);
    ~StatementLock();
    StatementLock(const StatementLock &) = delete;
    StatementLock &operator=(const StatementLock &) = delete;

  private:
    pthread_mutex_t &mutex_;
};

// While it lives, this thread has more to do at once.
class WorkAhead
{
  public:
    WorkAhead();
    ~WorkAhead();
    WorkAhead(const WorkAhead &) = delete;
    WorkAhead &operator=(const WorkAhead &) = delete;
};

// Lets reads outlive turns as long as its thread comes by every few
// milliseconds. One at a time.
class ReadWatch
{
  public:
    ReadWatch() = default;
    ~ReadWatch();

    // Gives up a read beside which nobody has stepped since the last call.
    void Tick();

    ReadWatch(const ReadWatch &) = delete;
    ReadWatch &operator=(const ReadWatch &) = delete;
};

// --- For StepStatement ------------------------------------------------------

// Opens the read, if this thread has a turn and it isn't open. The caller has
// just read a row, whose statement still holds the lock, so that this neither
// waits nor fails for want of it; and it holds SqliteStepMutex.
void KeepRead();

// Whether the read is open now.
bool ReadIsKept();

// Gives up the read, whoever keeps it; whether there was one.
bool GiveUpRead();

// A step is being made; see ReadWatch.
void NoteStep();

// Finalises the statement behind the read. No thread may have a turn any more.
void FinalizeKeptRead();

} // namespace qdb

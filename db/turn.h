// Turns at the database, and the read that is kept open over them.
//
// SQLite takes the file's shared lock for each statement anew, and looks at the
// file again each time, unless a read is open already; and threads that hand
// one mutex around at every step are slower than one. A handler therefore does
// its statements in one turn, and the first row that it reads leaves a read of
// ours open, which the next turn finds if there is more to do.
//
// Nothing else changes: each statement commits by itself and is visible to
// everybody when its step has returned. What the open read would change is
// undone where it would show:
// 1. A step that answers BUSY, LOCKED or ABORT while a read is open is stepped
//    again without it (StepStatement), since SQLite then doesn't wait, and
//    since the read may be what keeps another process from writing.
// 2. The read is given up at once when nothing more is waiting to be done, and
//    with the turn before every repeat and every sleep.
// 3. A read that nobody has stepped beside for a moment is given up by threads
//    that wake often anyway (GiveUpIdleRead): whoever should have used it may
//    wait for a bus or a Data Manager that doesn't answer.
//
// A turn is taken inside a row's handler mutex and outside of all statement
// mutexes, and never again by the thread that gave it up early, so that who
// holds a statement's mutex never waits for a turn.
#pragma once

namespace qdb
{

// The turn of one handler; waits until it comes. Its end may change what
// sqlite3_errmsg says, so failures are logged before.
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

// While it lives, this thread has more to do at once: the read is kept from one
// turn to the next although the event queue may be empty.
class WorkAhead
{
  public:
    WorkAhead();
    ~WorkAhead();
    WorkAhead(const WorkAhead &) = delete;
    WorkAhead &operator=(const WorkAhead &) = delete;
};

// Ends this thread's turn, if it has one, and gives up the read. Before every
// sleep and repeat.
void GiveUpTurn();

// Gives up the read; whether there was one. Any thread.
bool GiveUpRead();

// Gives up the read if no step has been made since the last call. For a caller
// that comes by every few milliseconds.
void GiveUpIdleRead();

// Opens a read that stays open, if this thread has a turn and none is open. The
// caller has just read a row, whose statement still holds the lock, so that
// this neither waits nor fails for want of it; and it holds SqliteStepMutex.
void KeepRead();

// Whether a read is open now.
bool ReadIsKept();

// A step is being made; see GiveUpIdleRead.
void NoteStep();

// Finalises the statement behind the read. No thread may have a turn any more.
void FinalizeKeptRead();

} // namespace qdb

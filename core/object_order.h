// The order of what is known of an object and of what its row shows.
//
// Ten workers, the NC thread and the Data Manager's callback may have one
// object in hand at once, and the Data Manager answers when it likes. Two
// things keep the row, and what is announced of it, in order all the same:
//
// 1. A claim. From the first reading of a row to the sending of its signal a
//    handler has the object's claim, so that the signals of a row leave in the
//    order of its commits, and each tells of what the one before it left. The
//    claims of two objects know nothing of each other.
// 2. A clock that counts askings. A fetched object is as old as the tick at
//    which it was asked for, a destroy as the tick at which its record was
//    taken. What a row shows has the tick of what it was written from, and is
//    never replaced by something older: a handler that finds its object out of
//    date has it fetched again.
//
// Who holds a claim may wait for: SQLite, the turn at the database, a statement
// mutex, the pauses of a busy database, the bus (bounded), and the Data
// Manager's answer on the parents of an object that has just been created. It
// is taken inside a row's handler mutex, never with the turn in hand.
#pragma once

#include "core/status.h"
#include "platform/zoil.h"

#include <cstdint>

namespace qdb
{

// The next tick of the clock; larger than all before.
uint64_t Tick();

// The calling thread has fetched the object, which it asked for at that tick,
// and will free it itself. NULL is a no-op.
void NoteFetch(const void *object, uint64_t asked);

// The memory is about to be freed.
void ForgetFetch(const void *object);

// The tick at which the calling thread asked for the object, if that was the
// last one it fetched; otherwise the present tick.
uint64_t AgeOf(const void *object);

// While it lives, handlers that the calling thread runs refuse an object that
// is out of date, with ZO_STATUS_INVALID_VALUE: it will be fetched again.
class FetchesAgain
{
  public:
    FetchesAgain();
    ~FetchesAgain();
    FetchesAgain(const FetchesAgain &) = delete;
    FetchesAgain &operator=(const FetchesAgain &) = delete;

    // Whether an object was refused since; only then does the status mean that,
    // and not an object that can't be read.
    bool Refused() const
    {
        return refused_;
    }

  private:
    friend class ObjectClaim;

    FetchesAgain *const before_;
    bool refused_ = false;
};

// A claim on one object, first come, first served. A thread has at most one.
class ObjectClaim
{
  public:
    // Waits for the claims on the object that came before. `age` is that of
    // what the thread knows of the object.
    ObjectClaim(uint32_t oid, uint64_t age);

    // Waits no longer than `patienceMs`; see IsHeld.
    ObjectClaim(uint32_t oid, uint64_t age, int patienceMs);

    ~ObjectClaim();
    ObjectClaim(const ObjectClaim &) = delete;
    ObjectClaim &operator=(const ObjectClaim &) = delete;

    bool IsHeld() const
    {
        return held_;
    }

    // Whether the row shows, or is known to lack, something newer than what the
    // thread knows.
    bool IsOvertaken() const;

    // Whether the thread's object is overtaken, and is to be refused: it will
    // be fetched again.
    bool RefusesObject() const;

    // The row now shows, or is known to lack, what the thread knows.
    void NoteKnown();

    // Lets the waiting claims on the object go first. For a thread that hasn't
    // looked at the row yet. False when the object is to be refused after that.
    bool LetOthersGoFirst();

    // The claim of the calling thread; NULL: none.
    static ObjectClaim *OfThread();

  private:
    bool Enter(int patienceMs);
    void Append();
    void Remove();
    bool IsFirst() const;

    const uint32_t oid_;
    const uint64_t age_;
    ObjectClaim *next_ = nullptr;
    bool held_ = false;
};

// What a create and a refresh do around their steps: runs these with the object
// claimed, from the first look at its row to the signal; returns their status.
// An object that has changed since it was fetched is refused untouched, with
// ZO_STATUS_INVALID_VALUE. What the steps found is known from here on, also
// that there is no row or that the OID is mapped: a handler under way may have
// fetched an older object. Nothing is known of an object that could not be
// read.
template <typename Steps>
int RunClaimed(const DataObjHeader *pDOH, Steps steps)
{
    ObjectClaim claim(pDOH->objID, AgeOf(pDOH));
    if (claim.RefusesObject())
    {
        return ZO_STATUS_INVALID_VALUE;
    }
    const int status = steps();
    if (status != ZO_STATUS_INVALID_VALUE)
    {
        claim.NoteKnown();
    }
    return status;
}

} // namespace qdb

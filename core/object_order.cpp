// Claims are a list in order of arrival, and not a table by OID: there are as
// many as threads with an object in hand, a dozen at most.
#include "core/object_order.h"

#include "core/lock.h"

#include <algorithm>
#include <cerrno>

namespace qdb
{
namespace
{

constexpr int kForEver = -1;
constexpr int64_t kNanosecondsPerMs = 1000000;

std::atomic<uint64_t> gClock = 0;

// What the calling thread fetched last.
struct Fetch
{
    const void *object;
    uint64_t asked;
};
constinit thread_local Fetch tFetch = {};
constinit thread_local FetchesAgain *tFetchesAgain = nullptr;
constinit thread_local ObjectClaim *tClaim = nullptr;

// A leaf; guards all below and the links of the claims.
pthread_mutex_t gMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gDone = PTHREAD_COND_INITIALIZER;
int gWaiting = 0;
ObjectClaim *gFirst = nullptr; // all claims, held or not, in order of arrival

// What rows are known to show. A place holds the object that was noted there
// last, and the newest of what it held before: an object that has lost its
// place counts as that new, and is fetched once too often at worst.
struct Known
{
    uint32_t oid;
    uint64_t tick;
    uint64_t others;
};
constexpr size_t kPlaces = 1024;
Known gKnown[kPlaces];

Known &PlaceOf(uint32_t oid)
{
    // OIDs are often numbered in steps of a power of two, and would all fall on
    // few places by their low bits alone.
    return gKnown[(oid ^ (oid >> 10) ^ (oid >> 20)) % kPlaces];
}

} // namespace

uint64_t Tick()
{
    return ++gClock;
}

void NoteFetch(const void *object, uint64_t asked)
{
    if (object != nullptr)
    {
        tFetch = {object, asked};
    }
}

void ForgetFetch(const void *object)
{
    if (tFetch.object == object)
    {
        tFetch = {};
    }
}

uint64_t AgeOf(const void *object)
{
    return object != nullptr && tFetch.object == object ? tFetch.asked : Tick();
}

FetchesAgain::FetchesAgain() : before_(tFetchesAgain)
{
    tFetchesAgain = this;
}

FetchesAgain::~FetchesAgain()
{
    tFetchesAgain = before_;
}

ObjectClaim::ObjectClaim(uint32_t oid, uint64_t age)
    : ObjectClaim(oid, age, kForEver)
{
}

ObjectClaim::ObjectClaim(uint32_t oid, uint64_t age, int patienceMs)
    : oid_(oid), age_(age)
{
    AssertMayWait();
    const LeafLock lock(gMutex);
    Append();
    held_ = Enter(patienceMs);
    if (held_)
    {
        tClaim = this;
    }
    else
    {
        Remove();
    }
}

ObjectClaim::~ObjectClaim()
{
    if (held_)
    {
        const LeafLock lock(gMutex);
        Remove();
        tClaim = nullptr;
    }
}

bool ObjectClaim::IsOvertaken() const
{
    const LeafLock lock(gMutex);
    const Known &known = PlaceOf(oid_);
    return (known.oid == oid_ ? known.tick : known.others) > age_;
}

bool ObjectClaim::RefusesObject() const
{
    if (tFetchesAgain == nullptr || !IsOvertaken())
    {
        return false;
    }
    tFetchesAgain->refused_ = true;
    return true;
}

void ObjectClaim::NoteKnown()
{
    const LeafLock lock(gMutex);
    Known &known = PlaceOf(oid_);
    // The one that loses its place is remembered with all that lost it before:
    // too new at worst, and then fetched again for nothing.
    if (known.oid != oid_)
    {
        known.others = std::max(known.others, known.tick);
        known.tick = known.others;
        known.oid = oid_;
    }
    // Never back: a destroy may be older than what the row showed.
    known.tick = std::max(known.tick, age_);
}

bool ObjectClaim::LetOthersGoFirst()
{
    AssertMayWait();
    {
        const LeafLock lock(gMutex);
        Remove();
        Append();
        Enter(kForEver);
    }
    return !RefusesObject();
}

ObjectClaim *ObjectClaim::OfThread()
{
    return tClaim;
}

// The rest is called with gMutex held.

// Waits until no claim on the object stands before this one. False when the
// time was up.
bool ObjectClaim::Enter(int patienceMs)
{
    const timespec deadline = ToTimespec(
        NowNanoseconds() + std::max(patienceMs, 0) * kNanosecondsPerMs);
    int result = 0;
    while (!IsFirst() && result != ETIMEDOUT)
    {
        ++gWaiting;
        result = patienceMs == kForEver
                     ? pthread_cond_wait(&gDone, &gMutex)
                     : pthread_cond_clockwait(&gDone, &gMutex, CLOCK_MONOTONIC,
                                              &deadline);
        --gWaiting;
    }
    return IsFirst();
}

void ObjectClaim::Append()
{
    ObjectClaim **link = &gFirst;
    while (*link != nullptr)
    {
        link = &(*link)->next_;
    }
    next_ = nullptr;
    *link = this;
}

void ObjectClaim::Remove()
{
    ObjectClaim **link = &gFirst;
    while (*link != this)
    {
        link = &(*link)->next_;
    }
    *link = next_;
    // All of them, since each waits for another object's end.
    if (gWaiting > 0)
    {
        pthread_cond_broadcast(&gDone);
    }
}

bool ObjectClaim::IsFirst() const
{
    const ObjectClaim *claim = gFirst;
    while (claim->oid_ != oid_)
    {
        claim = claim->next_;
    }
    return claim == this;
}

} // namespace qdb

// The books: every object that arrives on a road comes to one fate, so that at
// a quiet moment the arrivals of a road are the sum of its fates.
#pragma once

#include "core/statistics.h"

namespace qdb
{

// Where an object's arrival is counted: where it came from, which may be long
// before, or by the entry itself.
enum class Arrival
{
    Counted,
    Now,
};

// One object that the calling thread looks at, from here to its fate. They
// nest: what is looked at on the way has an entry of its own.
class BookEntry
{
  public:
    explicit BookEntry(Road road, Arrival arrival = Arrival::Now);
    ~BookEntry();
    BookEntry(const BookEntry &) = delete;
    BookEntry &operator=(const BookEntry &) = delete;

    // What is noted from here on is about another row of the object.
    void NextRow();

  private:
    friend void NoteFate(Fate fate);
    friend void NoteFailure(int status);
    friend void NoteLack();

    BookEntry *const outer_;
    const Road road_;
    Fate gravest_ = Fate::Ignored; // of the rows so far
    Fate now_ = Fate::Ignored;
    bool lacks_ = false;
    const int exceptions_; // that were under way at its beginning
};

// The objects of a list, whose arrivals have been counted: those that nobody
// has taken from it at its end come to a fate together, since the service stops
// or lacks memory.
class ListEntry
{
  public:
    ListEntry(Road road, uint64_t count);
    ~ListEntry();
    ListEntry(const ListEntry &) = delete;
    ListEntry &operator=(const ListEntry &) = delete;

    // The next of them has an entry of its own from here on.
    void TakeOne()
    {
        --left_;
    }

  private:
    const Road road_;
    uint64_t left_;
    const int exceptions_;
};

// So many objects arrive on a road.
void CountArrivals(Road road, uint64_t count);

// So many of them come to a fate that nobody looks at.
void CountFates(Road road, Fate fate, uint64_t count);

// What has become of the object in hand, as far as it goes: a later attempt may
// do better. Without one it is a no-op.
void NoteFate(Fate fate);

// The same by a status of core/status.h that isn't success. What is kept for
// later stays so.
void NoteFailure(int status);

// Its row will lack something that could not be had, and be written all the
// same.
void NoteLack();

// What failed, if something did: a success has noted its fate before.
void NoteEnd(int status);

} // namespace qdb

#include "core/fate.h"

#include "core/status.h"

#include <exception>

namespace qdb
{
namespace
{

constinit thread_local BookEntry *tEntry = nullptr;

Fate FateOf(int status)
{
    switch (status)
    {
    case SQLITE_DONE:
        return Fate::NoRow;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return Fate::Busy;
    case SQLITE_CONSTRAINT:
        return Fate::Constraint;
    case SQLITE_NOMEM:
    case kNoMemory:
        return Fate::NoMemory;
    case ZO_STATUS_NO_SUCH_OBJECT:
        return Fate::Vanished;
    case ZO_STATUS_INVALID_VALUE:
        return Fate::Invalid;
    default:
        return Fate::Failed;
    }
}

// An exception that ends the work is want of memory (core/guard.h).
Fate EndOf(int exceptionsBefore, Fate otherwise)
{
    return std::uncaught_exceptions() > exceptionsBefore ? Fate::NoMemory
                                                         : otherwise;
}

} // namespace

BookEntry::BookEntry(Road road, Arrival arrival)
    : outer_(tEntry), road_(road), exceptions_(std::uncaught_exceptions())
{
    if (arrival == Arrival::Now)
    {
        CountArrivals(road, 1);
    }
    tEntry = this;
}

BookEntry::~BookEntry()
{
    NextRow();
    CountFates(road_, EndOf(exceptions_, gravest_), 1);
    tEntry = outer_;
}

void BookEntry::NextRow()
{
    const bool isWritten = now_ == Fate::Unchanged || now_ == Fate::Changed ||
                           now_ == Fate::Created;
    gravest_ =
        std::max(gravest_, isWritten && lacks_ ? Fate::Incomplete : now_);
    now_ = Fate::Ignored;
}

ListEntry::ListEntry(Road road, uint64_t count)
    : road_(road), left_(count), exceptions_(std::uncaught_exceptions())
{
}

ListEntry::~ListEntry()
{
    if (left_ > 0)
    {
        CountFates(road_, EndOf(exceptions_, Fate::Stopped), left_);
    }
}

void CountArrivals(Road road, uint64_t count)
{
    Count(Figures().arrived[static_cast<size_t>(road)], count);
}

void CountFates(Road road, Fate fate, uint64_t count)
{
    Count(Figures().fates[static_cast<size_t>(road)][static_cast<size_t>(fate)],
          count);
}

void NoteFate(Fate fate)
{
    if (tEntry != nullptr)
    {
        tEntry->now_ = fate;
    }
}

void NoteFailure(int status)
{
    if (tEntry != nullptr && tEntry->now_ != Fate::Kept)
    {
        tEntry->now_ = FateOf(status);
    }
}

void NoteLack()
{
    if (tEntry != nullptr)
    {
        tEntry->lacks_ = true;
    }
}

void NoteEnd(int status)
{
    if (status != SQLITE_OK)
    {
        NoteFailure(status);
    }
}

} // namespace qdb

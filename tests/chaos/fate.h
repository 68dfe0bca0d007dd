// What a journal proves about a row: whether the service must have it, may
// have it or can't, and which columns may be older than the object's, with the
// cause of each.
#pragma once

#include "tests/chaos/world.h"

#include <map>
#include <string>

namespace qdb::chaos
{

enum class Held
{
    No,
    Maybe,
    Yes,
};

enum class Cause
{
    None,
    Silent,    // changed, came or went without a word
    Known,     // came back while its old row was still there
    Crowd,     // told together with something else
    Fault,     // told while a platform call failed
    Busy,      // told while another process kept the database
    Cleared,   // went with all others, and was not told since
    Kept,      // told as changed without a row: it waits in the fail queue
    NotReread, // told as a status change that only starts a reload
};

struct Fate
{
    bool alive = false;
    Held row = Held::No;
    Cause rowCause = Cause::None;

    // Columns that may be older, "*" being all.
    std::map<std::string, Cause> stale;

    // Epochs; 0 where it never happened.
    size_t born = 0;    // the row may be as old as that
    size_t changed = 0; // the object's last change
    size_t taken = 0;   // the row was told to go, or may have been
    size_t kept = 0;    // last put in the fail queue, as it may be
    size_t surelyKept = 0;

    bool isRaw = false; // the row may hold raw data
    size_t length = 0;  // of the array
    size_t longest = 0; // since the row was born

    Cause StaleCause(const std::string &column) const;
};

Fate FateOf(const Slot &slot, const std::vector<Epoch> &epochs);

// A row is asked for a second in vain before its reader gives up.
inline constexpr int kLongHoldMs = 1000;

} // namespace qdb::chaos

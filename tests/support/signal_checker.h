// What a consumer may rely on that follows the change signals alone: it knows
// at any moment which rows there are, and what is in them.
//
// Per row, known by its table and OID:
// 1. Added comes only while the row isn't announced, Changed and Removed only
//    while it is.
// 2. What a Changed doesn't name is as it was announced, and what it gives as
//    old values, too; what it names is in its row.
// 3. Removed gives the row as it was announced last.
// Etags aren't compared: they are stamped without a word.
#pragma once

#include "core/json.h"
#include "tests/support/change_listener.h"
#include "tools/audit/snapshot.h"

#include <map>
#include <set>
#include <string>
#include <utility>

namespace qdb::test
{

using RowName = std::pair<std::string, int64_t>; // table, and OID as stored

class SignalChecker
{
  public:
    // The rows that are there, whatever has been announced; what is in them
    // isn't known until they are announced again.
    void Know(const std::set<RowName> &rows);

    // Takes the next signal. Returns what is wrong with it, or "".
    std::string Take(const Change &change);

    // The rows that a consumer thinks there are.
    std::set<RowName> Announced() const;

  private:
    std::map<RowName, JsonPtr> rows_; // as announced; NULL: not known
};

// All rows of the object tables.
std::set<RowName> RowsIn(const audit::Snapshot &snapshot);

// What `a` has and `b` hasn't, for people.
std::string Missing(const std::set<RowName> &a, const std::set<RowName> &b);

} // namespace qdb::test

// What a consumer may rely on that follows the change signals alone: it knows
// at any moment which rows there are, and what is in them.
//
// Per row, known by its table and OID:
// 1. Added comes only while the row isn't announced, Changed and Removed only
//    while it is.
// 2. What a Changed doesn't name is as it was announced, and what it gives as
//    old values, too; what it names is in its row.
// 3. Removed gives the row as it was announced last.
// Etags aren't compared: they are stamped without a word. Nor is a row of which
// only a change of raw data was told last: that names the row by its key, and
// other columns.
//
// Begins with the knowledge that there is no row.
#pragma once

#include "core/json.h"
#include "tests/support/change_listener.h"
#include "tools/audit/snapshot.h"

#include <functional>
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
    // Forgets everything: of each row the next signal tells, whatever it is.
    void Doubt();

    // Rows that may go without a word.
    using Meant = std::function<bool(const RowName &)>;
    void LetVanish(const Meant &mayVanish);

    // Takes the next signal. Returns what is wrong with it, or "".
    std::string Take(const Change &change);

    // The row of the signal that was taken last.
    const RowName &Last() const
    {
        return last_;
    }

    // At rest: what the signals make a consumer believe that isn't so, a line
    // each.
    std::string Judge(const std::set<RowName> &rows) const;

  private:
    std::string TakeRawData(const std::string &table, const json_t *row);
    std::string JudgeKind(const std::string &kind, const RowName &name) const;
    std::string JudgeContent(const std::string &kind, const RowName &name,
                             json_t *told) const;
    bool IsSure(const RowName &name) const
    {
        return allSure_ || sure_.contains(name);
    }

    std::map<RowName, JsonPtr> rows_; // as announced
    bool allSure_ = true;
    std::set<RowName> sure_;  // of which something was told since the doubt
    std::set<RowName> vague_; // of which raw data was told last
    Meant mayVanish_;
    RowName last_;
};

// All rows of the object tables.
std::set<RowName> RowsIn(const audit::Snapshot &snapshot);

} // namespace qdb::test

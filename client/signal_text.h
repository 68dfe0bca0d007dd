// The JSON text of a change signal.
#pragma once

#include "client/row.h"
#include "core/json.h"

#include <map>
#include <string>
#include <vector>

namespace qdb::client
{

enum class SignalKind
{
    Added,
    Changed,
    Removed,
};

// A signal that has been read. Columns that the table doesn't have are left
// out; those that it has and the signal doesn't are `missing`.
struct Signal
{
    SignalKind kind = SignalKind::Added;
    int64_t oid = 0;
    qdb_row row = {};                      // as the signal tells it
    std::vector<size_t> missing = {};      // columns
    uint64_t tag = 0;                      // of the row
    std::vector<size_t> changed = {};      // columns
    std::map<size_t, Value> previous = {}; // old values, as far as it has them

    // Takes what is missing in it from the row as it is now.
    void Complete(const qdb_row &now);
};

class SignalText
{
  public:
    explicit SignalText(const std::string &text);

    // "" for a text of another form.
    std::string Table() const;

    // For a table of that name.
    Signal Read(SignalKind kind, const client::Table &table) const;

  private:
    JsonPtr whole_; // NULL: no JSON
};

} // namespace qdb::client

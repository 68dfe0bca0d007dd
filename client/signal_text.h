// The JSON text of a change signal, read by SQLite.
#pragma once

#include "client/statement.h"

#include <functional>
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
// out.
struct Signal
{
    SignalKind kind = SignalKind::Added;
    std::string table;
    int64_t oid = 0;
    qdb_row row;                           // as the signal tells it
    std::vector<size_t> changed = {};      // columns
    std::map<size_t, Value> previous = {}; // old values, as far as it has them
};

class SignalReader
{
  public:
    SignalReader();

    // Table and OID; false for a text of another form.
    bool ReadHead(const char *text, Signal *pSignal);

    // All else, for a table of that name.
    void ReadBody(const char *text, const Table &table, Signal *pSignal);

  private:
    using Take = std::function<void(size_t column, Value value)>;
    void ReadObject(const char *text, const char *path, const Table &table,
                    const Take &take);

    Value MemberValue();

    DatabasePtr memory_;
    StatementPtr head_;
    StatementPtr members_;
    StatementPtr elements_;
};

} // namespace qdb::client

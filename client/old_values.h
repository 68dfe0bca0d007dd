// Which columns of a row have changed, and from what, as rows and signals tell.
#pragma once

#include "client/follower.h"

#include <map>
#include <optional>
#include <vector>

namespace qdb::client
{

using Old = std::map<size_t, std::optional<Value>>; // by column

// Adds the columns in which the rows differ and that aren't there yet.
void AddDifferences(const qdb_row &before, const qdb_row &now, Old *pOld);

// Of signals that follow each other, the first one to a state that was told.
Old CollectChanges(const std::vector<Signal> &signals, const qdb_row &now);

// Whether the row before the signal is known from it, and has the tag.
bool BeginsWith(const Signal &signal, uint64_t tag);

// `now` has to stay as long as the change. Columns that are again what they
// were are left out.
qdb_change MakeChange(const Old &old, const qdb_row &now);

} // namespace qdb::client

// Statements of the user's own, which the client library has no call for.
#pragma once

#include "tools/qdb/grid.h"

#include <string>

namespace qdb::tool
{

enum class Selected
{
    Done,
    NoDatabase, // there is no file
    Busy,       // it stayed busy for busyMs milliseconds
};

// Runs one statement on a connection that only reads, and gives what it selects
// in *pGrid. The database is free again when this returns: the service waits
// for a statement that is under way. Throws Failure for anything else that is
// wrong, a statement that would write included.
Selected Select(const std::string &database, const std::string &sql, int busyMs,
                Grid *pGrid);

// The same for a command that has nothing to do without a result: throws
// Failure.
Grid MustSelect(const std::string &database, const std::string &sql);

// A name as SQL.
std::string QuotedName(const std::string &name);

} // namespace qdb::tool

// Statements of the user's own.
#pragma once

#include "tools/qdb/grid.h"

#include <quillondb/client.h>

#include <string>

namespace qdb::tool
{

// Gives what one statement selects in *pGrid. Returns 0, or what may pass:
// -ENODATA when there is no file, -EBUSY. Throws Failure for anything else that
// is wrong, a statement that would write included. `database` is its name in
// errors.
int Select(qdb_mirror *mirror, const std::string &database,
           const std::string &sql, Grid *pGrid);

// The same for a command that has nothing to do without a result: throws
// Failure.
Grid MustSelect(qdb_mirror *mirror, const std::string &database,
                const std::string &sql);

// A name as SQL.
std::string QuotedName(const std::string &name);

} // namespace qdb::tool

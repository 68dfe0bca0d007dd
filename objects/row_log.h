// What the statements of all handlers of a row share: how they are prepared,
// and how a failed one is logged.
#pragma once

#include "core/log.h"
#include "db/connection.h"
#include "objects/catalogue.h"

namespace qdb
{

// "%s:  %s sqlite errormsg: %s"; the function is named by its stem, such as
// "CreateObj_", and the row.
inline void LogRowError(int level, const char *stem, const ObjTypeRow &row)
{
    QDB_LOG(level, "%s:  %s%s sqlite errormsg: %s", stem, row.suffix,
            SqliteErrorMessage().c_str());
}

} // namespace qdb

// The end of the service on a corrupt database.
#pragma once

namespace qdb
{

// Thread entry: waits until somebody posts gSqliteCorruptSem, then stops the
// service in order, once. The argument isn't used. May be cancelled while it
// waits.
void *handle_QuillonDB_Sqlite_corrupt(void *argument);

} // namespace qdb

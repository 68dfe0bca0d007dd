// The NC thread: reads again, about every five seconds, the objects that give
// no events, and has the counts checked once the service is ready.
//
// No failure ends it. Between two reloads it holds none of their mutexes.
#pragma once

namespace qdb
{

// Thread entry. The argument isn't used. Ends after SetCancelNCThread, at the
// end of the reload or count check that is under way. Posts gSqliteCorruptSem
// when ObjTypeBasedNCObjects met a corrupt database.
void *handle_QuillonDB_NC_Event_Request(void *argument);

} // namespace qdb

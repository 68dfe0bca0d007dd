// The NC thread: reads again, about every five seconds, the objects that give
// no events.
#pragma once

namespace qdb
{

// Thread entry. The argument isn't used. Ends soon after SetCancelNCThread.
void *handle_QuillonDB_NC_Event_Request(void *argument);

} // namespace qdb

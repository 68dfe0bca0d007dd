// The signal thread: takes what other services announce on the bus.
#pragma once

namespace qdb
{

// Thread entry. The argument isn't used. Returns NULL, soon after
// SetCancelSignalThread.
void *handle_sdbus_signal_Request_thread(void *argument);

} // namespace qdb

// The cancel flags of the two threads that end by looking at one.
#pragma once

namespace qdb
{

// Ask the NC thread or the signal thread to end. Take the flag's own mutex, a
// leaf.
void SetCancelNCThread();
void SetCancelSignalThread();

// Whether the thread has been asked to end. Logs a line when it has. Take the
// flag's own mutex.
bool CheckCancelNCThread();
bool CheckCancelSignalThread();

} // namespace qdb

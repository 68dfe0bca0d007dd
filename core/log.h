// The log call.
//
// Every line goes to the platform's vexoprintf, which alone knows the levels
// that are written. Every format begins "%s: " for the tag of the calling
// thread. A macro, so that the compiler checks formats against arguments.
#pragma once

#include "platform/vexolog.h"

namespace qdb
{

enum LogLevel : int
{
    kLogError = 1,    // loses data or work
    kLogInvalid = 2,  // bad arguments; a long-lived loop has ended
    kLogWarning = 3,  // notable events
    kLogPass = 4,     // end of a reconciliation pass
    kLogTrace = 6,    // everything else
    kLogListener = 8, // the event listener was refused
    kLogCall = 9,     // function entry and exit
};

inline constexpr int kLogCategory = 208;

// "[Thid:N]" with the kernel's id of the calling thread. The text lives as
// long as the thread.
const char *ThreadTag();

// "[Thid:N]: <function> Entry!!!" and "... Exit!!!", at level kLogCall.
void LogEntry(const char *function);
void LogExit(const char *function);

} // namespace qdb

#define QDB_LOG(level, format, ...)                                            \
    vexoprintf(level, ::qdb::kLogCategory, format,                             \
               ::qdb::ThreadTag() __VA_OPT__(, ) __VA_ARGS__)

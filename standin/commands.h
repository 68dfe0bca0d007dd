// The commands of the control socket and of scenario files, as JSON objects.
#pragma once

#include "standin/standin.h"
#include "standin/support.h"

namespace standin
{

// Carries out {"op": ..., arguments}. The reply holds "ok": true and what the
// command gives, or "ok": false and "error". Borrows the request, which may be
// anything, NULL included.
Json Execute(const json_t *request);

// The reply to a command that failed.
Json FailureReply(const Error &error);

} // namespace standin

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

// The commands "create", without an event, "attribute", "fault" and "delay".
Error CreateFromJson(const json_t *arguments);
Error AttributeFromJson(const json_t *arguments);
Error FaultFromJson(const json_t *arguments);
Error DelayFromJson(const json_t *arguments);

} // namespace standin

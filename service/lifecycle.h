// The life of the process: start-up, running, closing.
#pragma once

namespace qdb
{

// Runs the service until SIGTERM or a corrupt database ends it. Returns the
// exit status: 0, the last status of a connection that could not be closed, or
// 1 when there can't be a single worker.
// Leaves the process with status 1 when population meets a corrupt database or
// the workers' thread attributes can't be had.
int RunService();

} // namespace qdb

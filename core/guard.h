// Where an exception ends.
//
// Ours are statuses; exceptions come from the standard library alone, nearly
// all for want of memory. They end in the unit of work that met them, and never
// pass a frame of C: the platform's callback, SQLite's hook, a thread's entry.
#pragma once

#include "core/fate.h"
#include "core/log.h"

#include <exception>

namespace qdb
{

// Runs `body`; when it throws, a line says that `what` failed. The unwinding of
// a cancelled thread is no exception and goes on.
template <typename Body>
void Guard(const char *what, Body body)
{
    try
    {
        body();
    }
    catch (const std::exception &exception)
    {
        NoteFate(Fate::NoMemory);
        QDB_LOG(kLogError, "%s: %s failed: %s\n", what, exception.what());
    }
}

} // namespace qdb

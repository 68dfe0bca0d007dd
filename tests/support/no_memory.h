// Allocations that fail.
//
// For executables that wrap malloc and calloc; C++'s new is left alone.
#pragma once

namespace qdb::test
{

// While true malloc and calloc give NULL to the calling thread.
extern thread_local bool tNoMemory;

} // namespace qdb::test

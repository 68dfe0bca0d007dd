// What a pass of the memory reload finds out, object by object.
#pragma once

#include "platform/zoil.h"

#include <cstdint>

namespace qdb
{

// The findings of one pass. They aren't cleared between objects: a check
// overwrites what it knows about and leaves the rest as the objects before left
// it, and the next object is judged by all of it.
struct Findings
{
    bool memoryRefresh = false; // the key in the last memory row is invalid
    bool nvdimmRefresh = false; // the last NVDIMM's endurance has changed
    bool powerRefresh = false;  // power object and database disagree
    bool powerCreate = false;   // so do its parents and the number of rows
    int powerRows = 0;          // the last number that could be read
};

// Looks at a memory device: the key in its row and, if it is an NVDIMM, its
// endurance against that of the first pass that saw it. The caller holds
// gReLoadNCMutex, which guards what is kept of that.
void CheckMemory(const DataObjHeader *pDOH, uint32_t oid, Findings *pFindings);

// Looks at a power object: its state against its row, its parents against the
// number of rows. Leaves the findings alone when the parents can't be listed.
void CheckPower(const DataObjHeader *pDOH, uint32_t oid, Findings *pFindings);

} // namespace qdb

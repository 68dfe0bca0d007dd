// Why a database may differ from the objects and be right.
//
// A rule explains a difference only where the journal proves that its cause
// happened to that very object. Everything else fails the run.
#pragma once

#include "tests/chaos/world.h"
#include "tools/audit/audit.h"

#include <map>
#include <string>
#include <vector>

namespace qdb::chaos
{

struct Explained
{
    std::map<std::string, size_t> counts; // of objects, by rule
    std::vector<audit::Difference> unexplained;
};

// `report` is of a service that has done all that it was told; `afterPasses`:
// and has made the passes that it promises since.
Explained Explain(const audit::Report &report, const World &world,
                  bool afterPasses);

} // namespace qdb::chaos

// The reloads, step by step: what there is in the Data Manager, in the tables
// and on the fail queue, and what is made of it.
#pragma once

#include "tests/support/handler_fixture.h"

#include <vector>

namespace qdb::test
{

// Statements that fail, as steps of the stream name them.
inline Faults Failing(const std::string &sql, int status, int times)
{
    return {{{sql, {status, times}}}, {}};
}

// First one status, then another.
inline Faults Failing(const std::string &sql, const Fault &first,
                      const Fault &second)
{
    return {{{sql, first}, {sql, second}}, {}};
}

inline Faults Unprepared(const std::string &sql, int status)
{
    return {{}, {{sql, {status, 1}}}};
}

struct ReloadStep
{
    const char *name;
    void (*prepare)();
    int (*reload)();
    Faults faults = {};
    bool afresh = false;       // nothing is left of the steps before
    const char *sql = nullptr; // another process's work on the tables before
};

const std::vector<ReloadStep> &ReloadSteps();

} // namespace qdb::test

// What concerns several objects or tables, step by step: events with several
// objects, population, the reloads, the count check. A step says what there is
// in the Data Manager, in the tables and on the fail queue, and what is made of
// it.
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

struct WideStep
{
    const char *name;
    void (*prepare)();
    int (*act)();
    Faults faults = {};
    bool afresh = false;        // nothing is left of the steps before
    const char *sql = nullptr;  // another process's work on the tables before
    const char *lost = nullptr; // a call that gives nothing, once
    int lostAfter = 0;
};

const std::vector<WideStep> &WideSteps();

} // namespace qdb::test

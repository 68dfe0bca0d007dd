// The steps of the recorded workload, which tests/data/steps.json and
// tests/data/stories.json list.
//
// A step of the first file says what there is in the Data Manager, in the
// tables and on the fail queue, and what is made of it. Its "first" and its
// "act" are lines: a word and what it is about, such as
//
//     ["put", ["0x36", 7, {"powerState": 2}], ["0x500"]]
//
// Words are explained at their definitions, or are short for several lines in
// "shared". A number may be hexadecimal text. An object is its type, its OID,
// its values, and what overwrites some of its bytes: an offset and bytes; or it
// is that of an OID alone.
// To add a failure, add a step; to say what can't be said yet, add a word.
#pragma once

#include "core/json.h"
#include "tests/support/event_records.h"
#include "tests/support/handler_fixture.h"

#include <string>
#include <vector>

namespace qdb::test
{

// A file of tests/data.
JsonPtr LoadSteps(const std::string &name);

// The statements that fail in a step, each a text of it, a status, and how
// often, or for ever: those in "fail" when they run, after "skip" that work,
// those in "unprepared" before.
Faults FaultsOf(const json_t *step);

// A number, or a hexadecimal one in a text.
uint32_t NumberOf(const json_t *word);

// The elements of an array; none of anything else.
std::vector<json_t *> Elements(const json_t *array);
Words NumbersOf(const json_t *array);

// The OIDs that are given, or the parent that objects have otherwise.
Words ParentsOf(const json_t *given);

// Such as 7 of "create".
uint16_t KindOf(const json_t *word);

// Carries out a line of the file and returns its result.
int RunLine(const json_t *file, const json_t *line);

} // namespace qdb::test

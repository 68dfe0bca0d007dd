// Recordings: what the operations of a workload made visible, as a text that is
// kept, and what a later run does in another way.
//
// The text is made to be read, in places, and to stay small. Log lines that
// many operations have in common stand once, behind the first that has them,
// and go by their hash from there on; a long line is cut, and its length and
// hash tell the rest.
#pragma once

#include <string>
#include <vector>

namespace qdb::test
{

// One line each, without control characters.
struct Operation
{
    std::string name;
    std::vector<std::string> data; // result, signals, records, rows
    std::vector<std::string> log;
    bool whole = false; // no line of it is cut
};

using Stream = std::vector<Operation>;

// The first lines of a long log; one line tells how many there were, and the
// hash of all.
std::vector<std::string> CutLog(std::vector<std::string> log);

// The text, `comment` in front of it; cutNothing keeps every line whole.
std::string RenderStream(const Stream &stream, const std::string &comment,
                         bool cutNothing = false);

// The text with the reals of its rows rounded to fifteen digits. SQLite's
// quote() gives more, of which those beyond depend on its version, and on
// whether long double is wider than double, which it isn't on ARM. Other lines
// have the service's own digits, and stay.
std::string RowsWithFifteenDigits(const std::string &text);

} // namespace qdb::test

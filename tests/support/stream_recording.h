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

} // namespace qdb::test

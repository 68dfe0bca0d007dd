#include "tests/support/stream_recording.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <set>
#include <sstream>

namespace qdb::test
{
namespace
{

using Lines = std::vector<std::string>;

constexpr size_t kLongestLine = 160;
constexpr size_t kKeptOfCutLine = 60;
constexpr char kCutMark[] = " ~ ";

constexpr char kOperationMark[] = "== ";
constexpr char kLogMark[] = "log ";
constexpr char kLogIndent[] = "  ";

// FNV-1a, 64 bits.
std::string Hash(const std::string &text)
{
    uint64_t hash = 0xCBF29CE484222325;
    for (const char c : text)
    {
        hash = (hash ^ static_cast<uint8_t>(c)) * 0x100000001B3;
    }
    char digits[17];
    std::snprintf(digits, sizeof(digits), "%016llx",
                  static_cast<unsigned long long>(hash));
    return digits;
}

std::string Cut(const std::string &line)
{
    return line.size() <= kLongestLine
               ? line
               : line.substr(0, kKeptOfCutLine) + kCutMark +
                     std::to_string(line.size()) + " bytes, " + Hash(line);
}

Lines CutAll(Lines lines, bool whole)
{
    if (!whole)
    {
        std::ranges::transform(lines, lines.begin(), Cut);
    }
    return lines;
}

std::string Join(const Lines &lines, const std::string &indent)
{
    std::string text;
    for (const std::string &line : lines)
    {
        text.append(indent).append(line).append("\n");
    }
    return text;
}

bool TakePrefix(std::string *pLine, const std::string &prefix)
{
    const bool has = pLine->starts_with(prefix);
    if (has)
    {
        pLine->erase(0, prefix.size());
    }
    return has;
}

// --- Differences -------------------------------------------------------------

constexpr int kShownOperations = 10;

// The part of a line that is worth looking at: what surrounds its difference
// from the other line; all of it when the other is only known by its hash.
std::string Excerpt(const std::string &line, const std::string &other)
{
    constexpr size_t kAround = 100;
    if (line.size() <= 2 * kAround || other.find(kCutMark) != std::string::npos)
    {
        return line;
    }
    const auto at = static_cast<size_t>(std::ranges::mismatch(line, other).in1 -
                                        line.begin());
    return "..." + line.substr(at - std::min(at, kAround), 2 * kAround) + "...";
}

// The first lines that differ.
void CompareLines(const Lines &recorded, const Lines &lines, bool whole,
                  std::ostream &out)
{
    const auto at = static_cast<size_t>(
        std::ranges::mismatch(recorded, CutAll(lines, whole)).in1 -
        recorded.begin());
    if (at == recorded.size() && at == lines.size())
    {
        return;
    }
    const std::string was = at < recorded.size() ? recorded[at] : "(end)";
    const std::string is = at < lines.size() ? lines[at] : "(end)";
    out << "  line " << at + 1 << " of " << recorded.size() << ", now of "
        << lines.size() << "\n  - " << Excerpt(was, is) << "\n  + "
        << Excerpt(is, was) << '\n';
}

std::string CompareOperations(const Operation &recorded,
                              const Operation &operation)
{
    std::ostringstream out;
    CompareLines(recorded.data, operation.data, operation.whole, out);
    CompareLines(recorded.log, operation.log, operation.whole, out);
    return out.str();
}

} // namespace

Lines CutLog(Lines log)
{
    constexpr size_t kLongest = 80;
    if (log.size() <= kLongest)
    {
        return log;
    }
    const std::string all =
        std::to_string(log.size()) + " lines, " + Hash(Join(log, ""));
    log.resize(kLongest / 2);
    log.push_back(all);
    return log;
}

std::string RenderStream(const Stream &stream, const std::string &comment,
                         bool cutNothing)
{
    std::string text = comment;
    std::set<std::string> written;
    for (const Operation &operation : stream)
    {
        const bool whole = cutNothing || operation.whole;
        const std::string log =
            Join(CutAll(operation.log, whole), cutNothing ? "" : kLogIndent);
        const std::string name = Hash(log);
        text += kOperationMark + operation.name + "\n" +
                Join(CutAll(operation.data, whole), "");
        text += cutNothing ? log : kLogMark + name + "\n";
        if (!cutNothing && written.insert(name).second)
        {
            text += log;
        }
    }
    return text;
}

Stream ParseStream(const std::string &text)
{
    Stream stream;
    std::map<std::string, Lines> logs;
    std::vector<std::string> names; // of the operations' logs
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
    {
        if (TakePrefix(&line, kOperationMark))
        {
            stream.push_back({line, {}, {}});
            names.emplace_back();
        }
        else if (stream.empty())
        {
            continue; // the comment
        }
        else if (TakePrefix(&line, kLogIndent))
        {
            logs[names.back()].push_back(line);
        }
        else if (TakePrefix(&line, kLogMark))
        {
            names.back() = line;
        }
        else
        {
            stream.back().data.push_back(line);
        }
    }
    for (size_t i = 0; i < stream.size(); ++i)
    {
        stream[i].log = logs[names[i]];
    }
    return stream;
}

std::string Differences(const Stream &recorded, const Stream &stream)
{
    std::string text;
    int shown = 0;
    for (size_t i = 0; i < std::max(recorded.size(), stream.size()); ++i)
    {
        const std::string was =
            i < recorded.size() ? recorded[i].name : "(nothing)";
        const std::string is = i < stream.size() ? stream[i].name : "(nothing)";
        if (was != is)
        {
            return text + "in place of \"" + was + "\" now \"" + is + "\"\n";
        }
        const std::string difference =
            CompareOperations(recorded[i], stream[i]);
        if (difference.empty())
        {
            continue;
        }
        if (++shown > kShownOperations)
        {
            return text + "and more\n";
        }
        text += is + ":\n" + difference;
    }
    return text;
}

} // namespace qdb::test

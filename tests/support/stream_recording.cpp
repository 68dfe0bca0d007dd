#include "tests/support/stream_recording.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <regex>
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

// The exponent stays out of it: rounded, the greatest real would be infinite.
std::string WithFifteenDigits(const std::string &line)
{
    static const std::regex longReal("(\\d\\.\\d{15,})(e[-+]\\d+)");
    std::string text;
    std::string rest = line;
    for (std::smatch match; std::regex_search(rest, match, longReal);)
    {
        char digits[32];
        std::snprintf(digits, sizeof(digits), "%.14f",
                      std::strtod(match.str(1).c_str(), nullptr));
        text += match.prefix().str() + digits + match.str(2);
        rest = match.suffix().str();
    }
    return text + rest;
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

std::string RowsWithFifteenDigits(const std::string &text)
{
    std::string shortened;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
    {
        shortened += line.starts_with("row ") ? WithFifteenDigits(line) : line;
        shortened += '\n';
    }
    return shortened;
}

} // namespace qdb::test

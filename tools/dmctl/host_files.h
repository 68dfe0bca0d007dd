// What the kernel tells about this machine, read from /proc and /sys.
//
// Every file may be missing, unreadable or odd, and may vanish at any time; all
// reads are bounded, and a failed read has no value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qdb
{

class HostFiles
{
  public:
    // `root` stands before every path; empty for this machine.
    explicit HostFiles(std::string root = "");

    // The file's content, at most 4 MiB, without white space at its ends.
    std::optional<std::string> Text(const std::string &path) const;

    // The integer that the file begins with.
    std::optional<int64_t> Number(const std::string &path, int base) const;

    // The words of the first line that begins with this word; none without
    // such a line.
    std::vector<std::string> Line(const std::string &path,
                                  const std::string &word) const;

    // The names in a directory, sorted; at most 4096.
    std::vector<std::string> List(const std::string &path) const;

  private:
    std::string mRoot;
};

// The first `limit` bytes of a file; no value when it cannot be read.
std::optional<std::string> ReadFile(const std::string &path, size_t limit);

// The integer that the text begins with, if it does; `base` as for strtoll.
std::optional<int64_t> ParseNumber(const std::string &text, int base = 10);

std::string Trimmed(const std::string &text);

// The parts of `text` between runs of white space.
std::vector<std::string> Words(const std::string &text);

// The lines of `text`, without their ends.
std::vector<std::string> Lines(const std::string &text);

} // namespace qdb

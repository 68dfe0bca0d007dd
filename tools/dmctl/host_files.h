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

    // The integer that the file begins with; `base` as for strtoll.
    std::optional<int64_t> Number(const std::string &path, int base = 10) const;

    // The names in a directory, sorted; at most 4096.
    std::vector<std::string> List(const std::string &path) const;

  private:
    std::string mRoot;
};

// The first `limit` bytes of a file; no value when it cannot be read.
std::optional<std::string> ReadFile(const std::string &path, size_t limit);

// The integer that the text begins with, if it does.
std::optional<int64_t> ParseNumber(const std::string &text, int base = 10);

// A value in another unit: no value stays none.
std::optional<int64_t> Divided(std::optional<int64_t> number, int64_t divisor);

// The parts of `text` between runs of white space.
std::vector<std::string> Words(const std::string &text);

// The lines of `text`, without their ends.
std::vector<std::string> Lines(const std::string &text);

// A line of /proc/meminfo, such as "MemTotal:", in KiB.
std::optional<int64_t> MemoryKibibytes(const HostFiles &files,
                                       const std::string &name);

} // namespace qdb

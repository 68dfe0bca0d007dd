#include "tools/dmctl/host_files.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

namespace qdb
{

namespace
{

constexpr size_t kLongestFile = 4u << 20;
constexpr size_t kMostNames = 4096;
constexpr char kSpace[] = " \t\r\n";

} // namespace

HostFiles::HostFiles(std::string root) : mRoot(std::move(root))
{
}

std::optional<std::string> HostFiles::Text(const std::string &path) const
{
    const std::optional<std::string> content =
        ReadFile(mRoot + path, kLongestFile);
    return content ? std::optional(Trimmed(*content)) : std::nullopt;
}

std::optional<int64_t> HostFiles::Number(const std::string &path,
                                         int base) const
{
    const std::optional<std::string> text = Text(path);
    return text ? ParseNumber(*text, base) : std::nullopt;
}

std::vector<std::string> HostFiles::Line(const std::string &path,
                                         const std::string &word) const
{
    for (const std::string &line : Lines(Text(path).value_or("")))
    {
        std::vector<std::string> words = Words(line);
        if (!words.empty() && words.front() == word)
        {
            return words;
        }
    }
    return {};
}

std::vector<std::string> HostFiles::List(const std::string &path) const
{
    std::vector<std::string> names;
    std::error_code error;
    std::filesystem::directory_iterator entry(mRoot + path, error);
    while (!error && entry != std::filesystem::directory_iterator() &&
           names.size() < kMostNames)
    {
        names.push_back(entry->path().filename());
        entry.increment(error);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<std::string> ReadFile(const std::string &path, size_t limit)
{
    // A file that fails to read sets the stream's bad bit, a short one only its
    // end-of-file bit.
    std::ifstream file(path, std::ios::binary);
    std::string content;
    char block[4096];
    while (file && content.size() < limit)
    {
        const size_t wanted = std::min(sizeof(block), limit - content.size());
        file.read(block, static_cast<std::streamsize>(wanted));
        content.append(block, static_cast<size_t>(file.gcount()));
    }
    if (!file.is_open() || file.bad())
    {
        return std::nullopt;
    }
    return content;
}

std::optional<int64_t> ParseNumber(const std::string &text, int base)
{
    char *end = nullptr;
    errno = 0;
    const long long number = strtoll(text.c_str(), &end, base);
    if (end == text.c_str() || errno != 0)
    {
        return std::nullopt;
    }
    return number;
}

std::string Trimmed(const std::string &text)
{
    const size_t first = text.find_first_not_of(kSpace);
    if (first == std::string::npos)
    {
        return "";
    }
    return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

std::vector<std::string> Words(const std::string &text)
{
    std::istringstream stream(text);
    std::vector<std::string> words;
    for (std::string word; stream >> word;)
    {
        words.push_back(word);
    }
    return words;
}

std::vector<std::string> Lines(const std::string &text)
{
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
    {
        lines.push_back(line);
    }
    return lines;
}

} // namespace qdb

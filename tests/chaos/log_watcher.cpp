#include "tests/chaos/log_watcher.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>

namespace qdb::chaos
{
namespace
{

constexpr off_t kKept = 64 << 20;

} // namespace

void LogWatcher::Take(const std::string &line)
{
    const std::string thread = line.substr(0, line.find(']'));
    const auto has = [&](const std::string &text)
    {
        return line.find(text) != std::string::npos;
    };
    queued += has("QdbenQueued for SeqNumber=") ? 1u : 0u;
    taken += has("Dequeue SeqNo = ") ? 1u : 0u;
    waits += has("Call QdbdeQueue for thID=") ? 1u : 0u;
    reloads += has("Reload Config Objects - ") ? 1u : 0u;
    hasFence = hasFence || (!fence.empty() && has(fence));
    if (has("handle_QuillonDB_NC_Event_Request end of loop"))
    {
        passThread_ = thread;
        passRuns = false;
        ++passes;
    }
    // Workers run the same reload.
    if (thread == passThread_ && has("Entering ReLoadNCObjects"))
    {
        passRuns = true;
        passRan = true;
    }
}

void LogWatcher::GiveBack()
{
    file_.clear();
    const off_t read = file_.tellg();
    if (read - given_ < 2 * kKept)
    {
        return;
    }
    const int fd = open(path_.c_str(), O_WRONLY | O_CLOEXEC);
    if (fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, given_,
                  read - kKept - given_) == 0)
    {
        given_ = read - kKept;
    }
    close(fd);
}

std::string LogWatcher::Tail() const
{
    const auto size = static_cast<off_t>(std::filesystem::file_size(path_));
    std::ifstream file(path_);
    file.seekg(std::max<off_t>(size - kKept, 0));
    return {std::istreambuf_iterator<char>(file), {}};
}

void LogWatcher::Read()
{
    if (!file_.is_open())
    {
        file_.open(path_);
    }
    file_.clear();
    std::string part;
    while (std::getline(file_, part))
    {
        rest_ += part;
        if (file_.eof())
        {
            break; // the line's end isn't written yet
        }
        Take(rest_);
        rest_.clear();
    }
    GiveBack();
}

} // namespace qdb::chaos

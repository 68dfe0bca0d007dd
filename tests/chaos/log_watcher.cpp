#include "tests/chaos/log_watcher.h"

namespace qdb::chaos
{

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
            return; // the line's end isn't written yet
        }
        Take(rest_);
        rest_.clear();
    }
}

} // namespace qdb::chaos

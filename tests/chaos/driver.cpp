#include "tests/chaos/driver.h"

#include "tests/support/wait.h"

#include <filesystem>
#include <thread>

namespace qdb::chaos
{
namespace
{

// For what takes a moment, unless the service is stuck: a stuck one must not
// pass for a slow one, nor a slow one for a stuck one.
constexpr int kStuckMs = 180000;

constexpr std::streamoff kLongLog = 64 << 20;

bool Contains(const std::string &line, const char *text)
{
    return line.find(text) != std::string::npos;
}

} // namespace

// --- The log -----------------------------------------------------------------

void LogWatcher::Take(const std::string &line)
{
    const std::string thread = line.substr(0, line.find(']'));
    if (Contains(line, "QdbenQueued for SeqNumber="))
    {
        ++queued_;
    }
    else if (Contains(line, "Dequeue SeqNo = "))
    {
        ++taken_;
    }
    else if (Contains(line, "Call QdbdeQueue for thID="))
    {
        ++waits_;
    }
    else if (Contains(line, "handle_QuillonDB_NC_Event_Request end of loop"))
    {
        passThread_ = thread;
        passRuns_ = false;
        ++passes_;
    }
    else if (thread == passThread_ &&
             Contains(line, "Entering ReLoadNCObjects"))
    {
        passRuns_ = true;
        passRan_ = true;
    }
    else if (Contains(line, "Reload Config Objects - "))
    {
        ++reloads_;
    }
    else if (!fence_.empty() && Contains(line, fence_.c_str()))
    {
        hasFence_ = true;
    }
}

void LogWatcher::Read()
{
    std::ifstream file(path_, std::ios::binary);
    file.seekg(at_);
    const std::string text((std::istreambuf_iterator<char>(file)), {});
    at_ += static_cast<std::streamoff>(text.size());
    rest_ += text;
    size_t begin = 0;
    for (size_t end = 0; (end = rest_.find('\n', begin)) != std::string::npos;
         begin = end + 1)
    {
        Take(rest_.substr(begin, end - begin));
    }
    rest_.erase(0, begin);
}

bool LogWatcher::TakePassRan()
{
    const bool ran = passRan_ || passRuns_;
    passRan_ = passRuns_;
    return ran;
}

void LogWatcher::AwaitFence(const std::string &path)
{
    // The line of the worker that takes the record.
    fence_ = "path =  " + path;
    hasFence_ = false;
}

// --- The system --------------------------------------------------------------

Driver::Driver(const std::string &scenario)
    : service_({.scenario = scenario, .logLevel = 6, .pipe = true}),
      log_(service_.Root().Path() + "/log")
{
    service_.Start();
    sqlite3 *database = nullptr;
    sqlite3_open(service_.Root().Database().c_str(), &database);
    database_.reset(database);
    sqlite3_busy_timeout(database, kStuckMs);
    if (!service_.WaitReady() || !WaitPasses(1))
    {
        throw std::runtime_error("the service doesn't get ready");
    }
    client_ = std::make_unique<Client>(service_.Root().Path() + "/control");
}

Json Driver::Do(const std::string &command)
{
    return client_->Call(Json(json_loads(command.c_str(), 0, nullptr)));
}

Json Driver::Attribute(const std::string &interface, const std::string &key,
                       uint32_t oid)
{
    std::string path = "/com/vexo/tarnu/Config/Attributes/";
    for (const char letter : key)
    {
        path += letter == '.'   ? '_'
                : letter == '#' ? '/'
                                : static_cast<char>(std::tolower(letter));
    }
    return Json(json_pack("{s:s,s:s,s:s,s:I}", "interface", interface.c_str(),
                          "key", key.c_str(), "path", path.c_str(), "oid",
                          json_int_t{oid}));
}

void Driver::Hold(int milliseconds)
{
    if (!heldSince_)
    {
        heldSince_ = Clock::now();
        holdMs_ = milliseconds;
        sqlite3_exec(Database(), "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr);
    }
}

int Driver::Release()
{
    if (!heldSince_)
    {
        return 0;
    }
    std::this_thread::sleep_until(*heldSince_ +
                                  std::chrono::milliseconds(holdMs_));
    sqlite3_exec(Database(), "COMMIT", nullptr, nullptr, nullptr);
    const auto held = std::chrono::duration_cast<std::chrono::milliseconds>(
        Clock::now() - *heldSince_);
    heldSince_.reset();
    return static_cast<int>(held.count()) + 1;
}

void Driver::OpenPipe()
{
    if (!pipe_)
    {
        pipe_.emplace(service_.Root().Pipe());
    }
    pipe_->Take();
}

void Driver::ClosePipe()
{
    pipe_.reset();
}

// A signal behind all others, which makes a record behind all others.
void Driver::Fence()
{
    const std::string path = "/fence/" + std::to_string(++fences_);
    log_.AwaitFence(path);
    bus_.SendAdded(Json(json_pack("{s:s,s:s,s:i}", "interface", "Fence", "path",
                                  path.c_str(), "oid", 1))
                       .get());
}

bool Driver::Settle(bool *pPassRan)
{
    Do(R"({"op":"wait","timeoutMs":)" + std::to_string(kStuckMs) + "}");
    Fence();
    const bool settled = test::WaitUntil(
        [this]
        {
            log_.Read();
            return log_.HasFence() && log_.IsIdle() &&
                   log_.Reloads() == detaches_;
        },
        kStuckMs);
    *pPassRan = log_.TakePassRan();
    return settled;
}

bool Driver::PassRuns()
{
    log_.Read();
    return log_.PassRuns();
}

bool Driver::WaitPasses(size_t count)
{
    log_.Read();
    const size_t wanted = log_.Passes() + count + (log_.PassRuns() ? 1 : 0);
    return test::WaitUntil(
        [&]
        {
            log_.Read();
            return log_.Passes() >= wanted;
        },
        kStuckMs);
}

} // namespace qdb::chaos

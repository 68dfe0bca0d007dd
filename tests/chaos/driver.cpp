#include "tests/chaos/driver.h"

#include "tests/support/wait.h"

#include <thread>

namespace qdb::chaos
{
namespace
{

// For what takes a moment, unless the service is stuck: a stuck one must not
// pass for a slow one, nor a slow one for a stuck one.
constexpr int kStuckMs = 180000;

} // namespace

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
    const std::string path = "/fence/" + std::to_string(fences_);
    // The line of the worker that takes the record.
    log_.fence = "path =  " + path;
    fencedAt_ = Clock::now();
    bus_.SendAdded(Json(json_pack("{s:s,s:s,s:i}", "interface", "Fence", "path",
                                  path.c_str(), "oid", 1))
                       .get());
}

bool Driver::IsSettled()
{
    log_.Read();
    // The fence may meet a queue that holds no more from the bus.
    if (!log_.hasFence && Clock::now() - fencedAt_ > std::chrono::seconds(1))
    {
        Fence();
    }
    return log_.hasFence && log_.IsIdle() && log_.reloads == detaches_;
}

bool Driver::Settle(bool *pPassRan)
{
    Do(R"({"op":"wait","timeoutMs":)" + std::to_string(kStuckMs) + "}");
    ++fences_;
    log_.hasFence = false;
    Fence();
    const bool settled = test::WaitUntil(
        [this]
        {
            return IsSettled();
        },
        kStuckMs);
    *pPassRan = log_.passRan;
    log_.passRan = log_.passRuns;
    return settled;
}

bool Driver::HasPassRun()
{
    log_.Read();
    return log_.passRan;
}

tool::Statistics Driver::Statistics() const
{
    return tool::ReadStatistics(service_.Root().Statistics()).value();
}

uint64_t Driver::GivenUp() const
{
    const tool::Statistics statistics = Statistics();
    uint64_t sum = statistics.Sum("events_dropped");
    for (const char *fate : {"incomplete", "kept", "vanished", "constraint",
                             "invalid", "busy", "no_memory", "failed"})
    {
        // Reloads find most of what they look for there already, or not at all.
        sum += statistics.Sum("objects", "fate=\"" + std::string(fate) + '"',
                              "road=\"reload\"");
    }
    return sum;
}

bool Driver::WaitPasses(size_t count)
{
    log_.Read();
    const size_t wanted = log_.passes + count + (log_.passRuns ? 1 : 0);
    return test::WaitUntil(
        [&]
        {
            log_.Read();
            return log_.passes >= wanted;
        },
        kStuckMs);
}

} // namespace qdb::chaos

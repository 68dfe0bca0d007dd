#include "tests/client/monitor.h"

#include "tests/support/wait.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <iterator>
#include <utility>

namespace qdb::test
{
namespace
{

constexpr char kRule[] =
    "type='signal',path='/com/vexo/tarnu/qdb/changeeventnotify',"
    "interface='com.vexo.tarnu.qdb.changeeventnotify'";

// Of the messages that this thread has asked for theirs.
thread_local Serials tTaken;

int Ignore(sd_bus_message *, void *, sd_bus_error *)
{
    return 0;
}

bool HasReached(const Serials &serials, const std::string &sender,
                uint64_t serial)
{
    const auto found = serials.find(sender);
    return found != serials.end() && !found->second.empty() &&
           *found->second.rbegin() >= serial;
}

// Whatever begins everything anew.
int OtherResyncs(const Shadow &shadow)
{
    return shadow.Resyncs(QDB_NEW_SERVICE) + shadow.Resyncs(QDB_NEW_DATABASE) +
           shadow.Resyncs(QDB_NEW_BUS);
}

} // namespace

Monitor::Monitor(const std::string &address)
    : address_(address), thread_(
                             [this](std::stop_token stop)
                             {
                                 Run(std::move(stop));
                             })
{
    EXPECT_TRUE(WaitUntil(
        [this]
        {
            const std::lock_guard lock(mutex_);
            return isListening_;
        }));
}

Monitor::~Monitor() = default;

void Monitor::Run(std::stop_token stop)
{
    while (!stop.stop_requested())
    {
        Listen(stop);
        const std::lock_guard lock(mutex_);
        isListening_ = false;
    }
}

// As long as the bus is there.
void Monitor::Listen(const std::stop_token &stop)
{
    constexpr uint64_t kLookMicroseconds = 10000;
    sd_bus *bus = nullptr;
    int result = sd_bus_new(&bus);
    result = result < 0 ? result : sd_bus_set_address(bus, address_.c_str());
    result = result < 0 ? result : sd_bus_set_bus_client(bus, 1);
    result = result < 0 ? result : sd_bus_start(bus);
    result = result < 0
                 ? result
                 : sd_bus_add_match(bus, nullptr, kRule, Ignore, nullptr);
    while (result >= 0 && !stop.stop_requested())
    {
        {
            const std::lock_guard lock(mutex_);
            isListening_ = true;
        }
        sd_bus_message *message = nullptr;
        result = sd_bus_process(bus, &message);
        if (message != nullptr)
        {
            uint64_t serial = 0;
            sd_bus_message_get_cookie(message, &serial);
            sd_bus_message_unref(message);
            const std::lock_guard lock(mutex_);
            for (auto &[sender, serials] : std::exchange(tTaken, {}))
            {
                seen_[sender].merge(serials);
            }
        }
        result = result == 0 ? sd_bus_wait(bus, kLookMicroseconds) : result;
    }
    sd_bus_close_unref(bus);
}

void Monitor::Collect()
{
    for (auto &[sender, taken] : tTaken)
    {
        EXPECT_TRUE(WaitUntil(
            [&]
            {
                const std::lock_guard lock(mutex_);
                return HasReached(seen_, sender, *taken.rbegin());
            }));
        const std::lock_guard lock(mutex_);
        const std::set<uint64_t> &seen = seen_[sender];
        // The next gap begins behind the last one that came.
        for (; taken.size() > 1; taken.erase(taken.begin()))
        {
            const auto missing = static_cast<size_t>(
                std::distance(seen.upper_bound(*taken.begin()),
                              seen.lower_bound(*std::next(taken.begin()))));
            signals_ += missing;
            gaps_ += missing > 0 ? 1U : 0U;
        }
    }
}

void Monitor::Judge(const Shadow &shadow)
{
    Collect();
    const size_t gaps = gaps_ - std::exchange(judgedGaps_, gaps_);
    const int losses = shadow.Resyncs(QDB_LOST_SIGNALS) - losses_;
    const int others = OtherResyncs(shadow) - others_;
    EXPECT_LE(losses, static_cast<int>(gaps));
    EXPECT_TRUE(gaps == 0 || losses + others > 0) << gaps << " losses";
    losses_ += losses;
    others_ += others;
}

void Monitor::Forget()
{
    EXPECT_TRUE(WaitUntil(
        [this]
        {
            const std::lock_guard lock(mutex_);
            return !isListening_;
        }));
    const std::lock_guard lock(mutex_);
    seen_.clear();
    tTaken.clear();
}

} // namespace qdb::test

// In the library's way to the real one.
extern "C" int sd_bus_message_get_cookie(sd_bus_message *message,
                                         uint64_t *serial)
{
    using Function = int (*)(sd_bus_message *, uint64_t *);
    static const auto real = reinterpret_cast<Function>(
        dlsym(RTLD_NEXT, "sd_bus_message_get_cookie"));
    const int result = real(message, serial);
    const char *sender = sd_bus_message_get_sender(message);
    if (result >= 0 && sender != nullptr)
    {
        qdb::test::tTaken[sender].insert(*serial);
    }
    return result;
}

#include "bench/subscriber.h"

#include "bench/wait.h"
#include "publish/bus_connection.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace qdb::bench
{
namespace
{

// Written by the child alone, but for `keepsArrivals`. `signals` comes last,
// and tells that the other words are up to date.
struct Tally
{
    std::atomic<bool> listening;
    std::atomic<bool> keepsArrivals;
    std::atomic<int64_t> lastArrival;
    std::atomic<uint64_t> signals;
    std::atomic<uint64_t> arrivalCount;
    Arrival arrivals[Subscribers::kMaxArrivals];
};
static_assert(std::atomic<uint64_t>::is_always_lock_free,
              "the words are shared between processes");

uint32_t OidOf(const char *text)
{
    constexpr char kMember[] = "\"OID\": ";
    const char *found = std::strstr(text, kMember);
    return found == nullptr ? 0
                            : static_cast<uint32_t>(std::strtol(
                                  found + sizeof(kMember) - 1, nullptr, 10));
}

void NoteArrival(Tally &tally, const char *text, int64_t time)
{
    const uint64_t index = tally.arrivalCount;
    if (index < Subscribers::kMaxArrivals)
    {
        tally.arrivals[index] = {OidOf(text), time};
        tally.arrivalCount = index + 1;
    }
}

int OnSignal(sd_bus_message *message, void *userData, sd_bus_error * /*error*/)
{
    const int64_t now = Now();
    Tally &tally = *static_cast<Tally *>(userData);
    const char *text = nullptr;
    if (sd_bus_message_read(message, "s", &text) <= 0)
    {
        return 0;
    }
    if (tally.keepsArrivals)
    {
        NoteArrival(tally, text, now);
    }
    tally.lastArrival = now;
    ++tally.signals;
    return 0;
}

// A subscriber's whole life.
int Listen(Tally &tally)
{
    const std::string rule = std::string("type='signal',path='") + kSignalPath +
                             "',interface='" + kSignalInterface + "'";
    sd_bus *bus = nullptr;
    int result = sd_bus_open_system(&bus);
    if (result >= 0)
    {
        result = sd_bus_add_match(bus, nullptr, rule.c_str(), OnSignal, &tally);
    }
    tally.listening = result >= 0;
    while (result >= 0)
    {
        result = sd_bus_process(bus, nullptr);
        if (result == 0)
        {
            result = sd_bus_wait(bus, UINT64_MAX);
        }
    }
    return 1;
}

} // namespace

struct Subscribers::One
{
    One();

    // Throws std::runtime_error when it has had more than it expected.
    void CheckNoMore(const std::string &sender) const;

    Shared<Tally> tally;
    Process process;
    uint64_t expected = 0; // signals, since it listens
};

Subscribers::One::One()
    : process(
          [this]
          {
              return Listen(*tally);
          })
{
    Await("a subscriber",
          [this]
          {
              return tally->listening.load();
          });
}

void Subscribers::One::CheckNoMore(const std::string &sender) const
{
    if (const uint64_t arrived = tally->signals; arrived > expected)
    {
        throw std::runtime_error(sender + ": " +
                                 std::to_string(arrived - expected) +
                                 " signals more than operations");
    }
}

Subscribers::Subscribers(size_t count)
{
    for (size_t i = 0; i < count; ++i)
    {
        all_.emplace_back();
    }
}

Subscribers::~Subscribers() = default;

void Subscribers::Begin(bool withArrivals)
{
    for (const One &one : all_)
    {
        one.CheckNoMore("after the last step");
    }
    Tally &first = *all_.front().tally;
    first.arrivalCount = 0;
    first.keepsArrivals = withArrivals;
}

int64_t Subscribers::End(uint64_t signals, const std::string &sender)
{
    int64_t last = 0;
    for (One &one : all_)
    {
        one.expected += signals;
        Await(std::to_string(signals) + " signals of " + sender,
              [&one]
              {
                  return one.tally->signals >= one.expected;
              });
        last = std::max(last, one.tally->lastArrival.load());
        one.CheckNoMore(sender);
    }
    return last;
}

std::vector<Arrival> Subscribers::Arrivals() const
{
    const Tally &first = *all_.front().tally;
    return {first.arrivals, first.arrivals + first.arrivalCount};
}

} // namespace qdb::bench

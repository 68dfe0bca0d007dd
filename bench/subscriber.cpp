#include "bench/subscriber.h"

#include "bench/digest.h"
#include "publish/bus_connection.h"
#include "tests/support/wait.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace qdb::bench
{

// Written by the child alone, but for `keepsArrivals`. `signals` comes last,
// and tells that the other words are up to date.
struct Tally
{
    std::atomic<bool> listening;
    std::atomic<bool> keepsArrivals;
    std::atomic<int64_t> lastArrival;
    std::atomic<uint64_t> digest;
    std::atomic<uint64_t> signals;
    std::atomic<uint64_t> fences;
    std::atomic<uint64_t> arrivalCount;
    Arrival arrivals[Subscribers::kMaxArrivals];
};
static_assert(std::atomic<uint64_t>::is_always_lock_free,
              "the words are shared between processes");

struct Subscribers::One
{
    One();

    Shared<Tally> tally;
    Process process;

    // The counts at Begin.
    uint64_t signals = 0;
    uint64_t digest = 0;
    uint64_t fences = 0;
};

namespace
{

// The pipe's; more than any burst of records while the reader has to wait.
constexpr int kPipeSize = 1 << 20;

// "||", "|", "|", "|" and "||" of one record.
constexpr uint64_t kBarsOfRecord = 7;

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
    const int64_t now = Clock::now().time_since_epoch().count();
    Tally &tally = *static_cast<Tally *>(userData);
    const char *text = nullptr;
    if (sd_bus_message_read(message, "s", &text) <= 0)
    {
        return 0;
    }
    if (std::strcmp(text, kFence) == 0)
    {
        ++tally.fences;
        return 0;
    }
    if (tally.keepsArrivals)
    {
        NoteArrival(tally, text, now);
    }
    tally.lastArrival = now;
    tally.digest += SignalDigest(sd_bus_message_get_member(message), text);
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

Subscribers::One::One()
    : process(
          [this]
          {
              return Listen(*tally);
          })
{
    if (!test::WaitUntil(
            [this]
            {
                return tally->listening.load();
            }))
    {
        throw std::runtime_error("no subscriber on the bus");
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
    for (One &one : all_)
    {
        one.signals = one.tally->signals;
        one.digest = one.tally->digest;
        one.fences = one.tally->fences;
    }
    Tally &first = *all_.front().tally;
    first.arrivalCount = 0;
    first.keepsArrivals = withArrivals;
}

Received Subscribers::End(uint64_t signals, const std::string &sender) const
{
    Received received = {};
    for (const One &one : all_)
    {
        const bool fenced = test::WaitUntil(
            [&one]
            {
                return one.tally->fences == one.fences + 1;
            });
        const uint64_t arrived = one.tally->signals - one.signals;
        if (!fenced || arrived != signals)
        {
            throw std::runtime_error(sender + ": " + std::to_string(arrived) +
                                     " signals arrived instead of " +
                                     std::to_string(signals));
        }
        const uint64_t digest = one.tally->digest - one.digest;
        if (&one != &all_.front() && digest != received.digest)
        {
            throw std::runtime_error(sender +
                                     ": subscribers received different texts");
        }
        received.digest = digest;
        received.last = std::max(received.last, one.tally->lastArrival.load());
    }
    return received;
}

std::vector<Arrival> Subscribers::Arrivals() const
{
    const Tally &first = *all_.front().tally;
    return {first.arrivals, first.arrivals + first.arrivalCount};
}

PipeReader::PipeReader(const std::string &path)
    : process_(
          [&]
          {
              Read(path);
              return 1;
          })
{
    if (!test::WaitUntil(
            [this]
            {
                return count_->open.load();
            }))
    {
        throw std::runtime_error("nobody reads " + path);
    }
}

// Opened for writing as well, so that the pipe never ends.
void PipeReader::Read(const std::string &path) const
{
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0 || fcntl(fd, F_SETPIPE_SZ, kPipeSize) < 0)
    {
        throw std::runtime_error("can't open " + path);
    }
    count_->open = true;
    char block[65536];
    for (;;)
    {
        const ssize_t length = read(fd, block, sizeof(block));
        if (length < 0 && errno != EINTR)
        {
            throw std::runtime_error("can't read " + path);
        }
        count_->bars += static_cast<uint64_t>(
            std::count(block, block + std::max<ssize_t>(length, 0), '|'));
    }
}

void PipeReader::Expect(uint64_t records)
{
    const uint64_t expected = before_ + records * kBarsOfRecord;
    test::WaitUntil(
        [&]
        {
            return count_->bars >= expected;
        });
    const uint64_t bars = count_->bars;
    if (bars != expected)
    {
        throw std::runtime_error(
            std::to_string((bars - before_) / kBarsOfRecord) +
            " telemetry records arrived instead of " + std::to_string(records));
    }
    before_ = bars;
}

void PipeReader::Skip()
{
    before_ = count_->bars;
}

} // namespace qdb::bench

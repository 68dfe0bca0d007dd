#include "bench/counter.h"

#include "publish/bus_connection.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace qdb::bench
{
namespace
{

static_assert(std::atomic<uint64_t>::is_always_lock_free,
              "the words are shared between processes");

// More than any burst of records while the reader has to wait.
constexpr int kPipeSize = 1 << 20;

// "||database|table|rowid|operation||".
constexpr uint64_t kBarsOfRecord = 7;

uint32_t OidOf(const char *text)
{
    constexpr char kMember[] = "\"OID\": ";
    const char *found = std::strstr(text, kMember);
    return found == nullptr ? 0
                            : static_cast<uint32_t>(std::strtol(
                                  found + sizeof(kMember) - 1, nullptr, 10));
}

int OnSignal(sd_bus_message *message, void *userData, sd_bus_error * /*error*/)
{
    Tally &tally = *static_cast<Tally *>(userData);
    const int64_t now = Now();
    const char *text = nullptr;
    if (sd_bus_message_read(message, "s", &text) <= 0)
    {
        return 0;
    }
    if (tally.keepsArrivals && tally.arrivalCount < std::size(tally.arrivals))
    {
        tally.arrivals[tally.arrivalCount++] = {OidOf(text), now};
    }
    tally.last = now;
    ++tally.count;
    return 0;
}

} // namespace

int CountSignals(Tally &tally)
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

// Opened for writing as well, so that the pipe never ends.
int CountRecords(Tally &tally, const std::string &pipe)
{
    const int fd = open(pipe.c_str(), O_RDWR | O_CLOEXEC);
    tally.listening = fcntl(fd, F_SETPIPE_SZ, kPipeSize) >= 0;
    uint64_t bars = 0;
    char block[65536];
    for (ssize_t length = 0; length >= 0;)
    {
        length = read(fd, block, sizeof(block));
        tally.last = Now();
        bars += static_cast<uint64_t>(
            std::count(block, block + std::max<ssize_t>(length, 0), '|'));
        tally.count = bars / kBarsOfRecord;
    }
    return 1;
}

Counter::Counter(std::string name, bool isExact,
                 const std::function<int(Tally &)> &body)
    : name_(std::move(name)), isExact_(isExact), process_(
                                                     [&]
                                                     {
                                                         return body(*tally_);
                                                     })
{
    Await(name_,
          [this]
          {
              return tally_->listening.load();
          });
}

void Counter::Begin(bool keepsArrivals)
{
    CheckNoMore();
    expected_ = tally_->count;
    tally_->arrivalCount = 0;
    tally_->keepsArrivals = keepsArrivals;
}

int64_t Counter::End(uint64_t count)
{
    expected_ += count;
    Await("what is to come at " + name_,
          [this]
          {
              return tally_->count >= expected_;
          });
    const int64_t last = tally_->last;
    CheckNoMore();
    return last;
}

void Counter::CheckNoMore() const
{
    const uint64_t count = tally_->count;
    if (isExact_ && count > expected_)
    {
        throw std::runtime_error(std::to_string(count - expected_) +
                                 " too many at " + name_);
    }
}

std::vector<Arrival> Counter::Arrivals() const
{
    const Tally &tally = *tally_;
    return {tally.arrivals, tally.arrivals + tally.arrivalCount};
}

} // namespace qdb::bench

#include "bench/subscriber.h"

#include "publish/bus_connection.h"
#include "tests/support/wait.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>

namespace qdb::bench
{

// Written by the child alone. `signals` comes last, and tells that the other
// words are up to date.
struct Tally
{
    std::atomic<bool> listening;
    std::atomic<Clock::rep> lastArrival;
    std::atomic<uint64_t> bytes;
    std::atomic<uint64_t> signals;
    std::atomic<uint64_t> fences;
};
static_assert(std::atomic<uint64_t>::is_always_lock_free,
              "the words are shared between processes");

namespace
{

int OnSignal(sd_bus_message *message, void *userData, sd_bus_error * /*error*/)
{
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
    tally.lastArrival = Clock::now().time_since_epoch().count();
    tally.bytes += std::strlen(text);
    ++tally.signals;
    return 0;
}

// The child's whole life; it ends with its parent.
[[noreturn]] void Listen(Tally &tally)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
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
    _exit(1);
}

Tally *MapTally()
{
    void *memory = mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
    {
        throw std::runtime_error("no shared memory");
    }
    return new (memory) Tally{};
}

} // namespace

void Subscriber::Unmap::operator()(Tally *tally) const
{
    munmap(tally, sizeof(Tally));
}

Subscriber::Subscriber() : tally_(MapTally()), child_(fork())
{
    if (child_ == 0)
    {
        Listen(*tally_);
    }
    const bool listens = child_ > 0 && test::WaitUntil(
                                           [this]
                                           {
                                               return tally_->listening.load();
                                           });
    if (!listens)
    {
        throw std::runtime_error("no subscriber on the bus");
    }
}

Subscriber::~Subscriber()
{
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
}

void Subscriber::Begin()
{
    signals_ = tally_->signals;
    bytes_ = tally_->bytes;
    fences_ = tally_->fences;
}

uint64_t Subscriber::SignalsSoFar() const
{
    return tally_->signals - signals_;
}

Clock::time_point Subscriber::WaitFor(uint64_t signals) const
{
    uint64_t seen = SignalsSoFar();
    while (seen < signals)
    {
        const bool more = test::WaitUntil(
            [&]
            {
                return SignalsSoFar() != seen;
            });
        if (!more)
        {
            throw std::runtime_error("only " + std::to_string(seen) + " of " +
                                     std::to_string(signals) +
                                     " signals arrived");
        }
        seen = SignalsSoFar();
    }
    return Clock::time_point(Clock::duration(tally_->lastArrival));
}

uint64_t Subscriber::End(uint64_t signals) const
{
    const bool fenced = test::WaitUntil(
        [this]
        {
            return tally_->fences == fences_ + 1;
        });
    if (!fenced || SignalsSoFar() != signals)
    {
        throw std::runtime_error(std::to_string(SignalsSoFar()) +
                                 " signals arrived instead of " +
                                 std::to_string(signals));
    }
    return tally_->bytes - bytes_;
}

// Opened for writing as well, so that the pipe never ends and the destructor
// can wake the thread.
PipeDrain::PipeDrain(const std::string &path)
    : fd_(open(path.c_str(), O_RDWR | O_CLOEXEC))
{
    if (fd_ < 0)
    {
        throw std::runtime_error("can't open " + path);
    }
    thread_ = std::thread(
        [this]
        {
            Run();
        });
}

PipeDrain::~PipeDrain()
{
    const char end = '\0';
    while (write(fd_, &end, 1) < 0 && errno == EINTR)
    {
    }
    thread_.join();
    close(fd_);
}

void PipeDrain::Run()
{
    char block[65536];
    ssize_t length = 0;
    do
    {
        length = read(fd_, block, sizeof(block));
    } while (length < 0 ? errno == EINTR : block[length - 1] != '\0');
}

} // namespace qdb::bench

// Platform calls that take their time.
#include "standin/delays.h"

#include "standin/standin.h"
#include "standin/state.h"
#include "standin/support.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <mutex>
#include <vector>

namespace standin
{
namespace
{

// A delay that has been used up stays until it is removed, since calls may
// still hang in it.
struct Rule
{
    Delay delay;
    bool isRemoved = false;
};

struct Delays
{
    std::mutex lock; // guards all below
    std::condition_variable removed;
    std::vector<std::shared_ptr<Rule>> rules[kCallCount];
    int hanging[kCallCount] = {};
};

Delays &TheDelays()
{
    static Delays *const delays = new Delays;
    return *delays;
}

// A call that sleeps is left alone by a cancel: not every frame above it can
// be unwound.
class Uncancelled
{
  public:
    Uncancelled()
    {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_);
    }
    ~Uncancelled()
    {
        pthread_setcancelstate(before_, nullptr);
    }
    Uncancelled(const Uncancelled &) = delete;
    Uncancelled &operator=(const Uncancelled &) = delete;

  private:
    int before_ = 0;
};

int64_t Now()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

// To the next tick of the timer: the usual slack would be a quarter of a short
// delay.
void SleepUntil(int64_t nanoseconds)
{
    static thread_local const int set = prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
    static_cast<void>(set);
    const timespec until = {static_cast<time_t>(nanoseconds / 1000000000),
                            static_cast<long>(nanoseconds % 1000000000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) ==
           EINTR)
    {
    }
}

// How much later a thread wakes up than it should, in nanoseconds: the least of
// several times, since what else the machine does only adds to it.
int64_t MeasureWaking()
{
    int64_t least = std::numeric_limits<int64_t>::max();
    for (int i = 0; i < 20; ++i)
    {
        const int64_t due = Now() + 100000;
        SleepUntil(due);
        least = std::min(least, Now() - due);
    }
    return least;
}

// A call of so many microseconds takes no longer than that for the waking.
void SleepFor(uint64_t microseconds)
{
    static const int64_t waking = MeasureWaking();
    const auto nanoseconds = static_cast<int64_t>(microseconds) * 1000;
    SleepUntil(Now() + nanoseconds - std::min(waking, nanoseconds / 2));
}

// Uniformly from 0 to `most`.
uint64_t Draw(uint64_t most)
{
    constinit static std::atomic<uint64_t> drawn = 0;
    constexpr uint64_t kStep = 0x9E3779B97F4A7C15;
    uint64_t bits = drawn.fetch_add(kStep, std::memory_order_relaxed) + kStep;
    bits = (bits ^ (bits >> 30)) * 0xBF58476D1CE4E5B9;
    bits = (bits ^ (bits >> 27)) * 0x94D049BB133111EB;
    return (bits ^ (bits >> 31)) % (most + 1);
}

bool IsFor(const Delay &delay, const Moment &moment)
{
    return delay.late == moment.isLate &&
           (delay.oid == 0 || delay.oid == moment.oid) &&
           (delay.text.empty() ||
            std::strstr(moment.format, delay.text.c_str()) != nullptr ||
            std::strstr(moment.line, delay.text.c_str()) != nullptr);
}

// The caller holds the lock.
void ArmDelays(size_t index)
{
    const auto isDue = [&](bool isLate)
    {
        return std::ranges::any_of(TheDelays().rules[index],
                                   [&](const auto &rule)
                                   {
                                       return rule->delay.late == isLate &&
                                              rule->delay.times != 0;
                                   });
    };
    Arm(index, kDelayed, isDue(false));
    Arm(index, kDelayedLate, isDue(true));
}

// One more call meets the delay; true when it sleeps. The caller holds the
// lock.
bool Take(size_t index, Delay &delay)
{
    if (delay.skip > 0)
    {
        --delay.skip;
        return false;
    }
    if (delay.times > 0 && --delay.times == 0)
    {
        ArmDelays(index);
        return true;
    }
    return delay.times != 0;
}

// Lets go what hangs in the rules that `isMeant` picks, and forgets them. The
// caller holds the lock.
template <typename Meant>
void Remove(size_t index, Meant isMeant)
{
    Delays &delays = TheDelays();
    std::erase_if(delays.rules[index],
                  [&](const std::shared_ptr<Rule> &rule)
                  {
                      rule->isRemoved = rule->isRemoved || isMeant(rule->delay);
                      return rule->isRemoved;
                  });
    delays.removed.notify_all();
    ArmDelays(index);
}

Error Check(const std::string &call, const Delay &delay)
{
    if (CallIndex(call) == kCallCount)
    {
        return NoSuchCall(call);
    }
    if (delay.times < -1 || delay.skip < 0)
    {
        return "times and skip can't be negative";
    }
    if (!delay.text.empty() && call != "vexoprintf")
    {
        return Print("%s writes no text", call.c_str());
    }
    constexpr std::string_view kAboutObjects[] = {
        "ZOILDOGetObjKeyUTF8",     "ZOILGetObjByOID",
        "ZOILListChildOIDByType",  "ZOILListParentOID",
        "client_get_obj_body_ptr",
    };
    if (delay.oid != 0 &&
        std::ranges::find(kAboutObjects, call) == std::end(kAboutObjects))
    {
        return Print("%s isn't told of an object", call.c_str());
    }
    return {};
}

} // namespace

void SleepInCall(const Moment &moment)
{
    const Uncancelled uncancelled;
    Delays &delays = TheDelays();
    uint64_t microseconds = 0;
    std::shared_ptr<Rule> hang;
    std::unique_lock lock(delays.lock);
    for (const std::shared_ptr<Rule> &rule : delays.rules[moment.index])
    {
        if (!IsFor(rule->delay, moment) || !Take(moment.index, rule->delay))
        {
            continue;
        }
        if (rule->delay.microseconds == kHang)
        {
            hang = rule;
            continue;
        }
        microseconds += rule->delay.random ? Draw(rule->delay.microseconds)
                                           : rule->delay.microseconds;
    }
    lock.unlock();
    if (microseconds > 0)
    {
        SleepFor(microseconds);
    }
    if (hang != nullptr)
    {
        lock.lock();
        ++delays.hanging[moment.index];
        delays.removed.wait(lock,
                            [&]
                            {
                                return hang->isRemoved;
                            });
        --delays.hanging[moment.index];
    }
}

Error SetDelay(const std::string &call, const Delay &delay)
{
    Start();
    if (Error error = Check(call, delay); !error.empty())
    {
        return error;
    }
    const size_t index = CallIndex(call);
    const std::lock_guard lock(TheDelays().lock);
    Remove(index,
           [&](const Delay &old)
           {
               return old.oid == delay.oid && old.late == delay.late &&
                      old.text == delay.text;
           });
    if (delay.microseconds != 0)
    {
        TheDelays().rules[index].push_back(std::make_shared<Rule>(Rule{delay}));
        ArmDelays(index);
    }
    return {};
}

void ReleaseDelays()
{
    const std::lock_guard lock(TheDelays().lock);
    for (size_t index = 0; index < kCallCount; ++index)
    {
        Remove(index,
               [](const Delay &)
               {
                   return true;
               });
    }
}

int HangingCalls(const std::string &call)
{
    const size_t index = CallIndex(call);
    const std::lock_guard lock(TheDelays().lock);
    return index == kCallCount ? 0 : TheDelays().hanging[index];
}

} // namespace standin

// Platform calls that take their time.
#include "platform/standin/delays.h"

#include "platform/standin/standin.h"
#include "platform/standin/state.h"
#include "platform/standin/support.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <ctime>
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

// To the next tick of the timer: a slack of 50 us would be a quarter of a short
// delay.
void SleepFor(uint64_t microseconds)
{
    timespec until = {};
    clock_gettime(CLOCK_MONOTONIC, &until);
    const auto nanoseconds =
        static_cast<uint64_t>(until.tv_nsec) + microseconds * 1000;
    until.tv_sec += static_cast<time_t>(nanoseconds / 1000000000);
    until.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
    const int slack = prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
    prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) ==
           EINTR)
    {
    }
    prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(slack), 0, 0, 0);
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

// One more call meets the delay; true when it sleeps.
bool Take(Delay &delay)
{
    if (delay.skip > 0)
    {
        --delay.skip;
        return false;
    }
    if (delay.times > 0)
    {
        --delay.times;
        return true;
    }
    return delay.times < 0;
}

// The caller holds the lock.
void ArmDelays(size_t index)
{
    Arm(index, kDelayed,
        std::ranges::any_of(TheDelays().rules[index],
                            [](const auto &rule)
                            {
                                return rule->delay.times != 0;
                            }));
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
        if (!IsFor(rule->delay, moment) || !Take(rule->delay))
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
    ArmDelays(moment.index);
    if (microseconds > 0)
    {
        lock.unlock();
        SleepFor(microseconds);
        lock.lock();
    }
    if (hang != nullptr)
    {
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

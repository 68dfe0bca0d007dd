// What the stand-in costs the process it is in: the processor time of object
// calls, and of its own threads.
#pragma once

#include <cstdint>

namespace standin
{

// The calling thread's processor time in nanoseconds.
int64_t ThreadTime();

// Adds what an object call has cost that began at that thread time.
void AddCallCost(int64_t begin);

// The scope of the listener's callback, which isn't the stand-in's work.
class CallbackScope
{
  public:
    CallbackScope();
    ~CallbackScope();
    CallbackScope(const CallbackScope &) = delete;
    CallbackScope &operator=(const CallbackScope &) = delete;

  private:
    const bool isMeasured_;
    const int64_t begin_;
};

// The life of a thread of the stand-in, on that thread.
class OwnThread
{
  public:
    OwnThread();
    ~OwnThread();
    OwnThread(const OwnThread &) = delete;
    OwnThread &operator=(const OwnThread &) = delete;
};

} // namespace standin

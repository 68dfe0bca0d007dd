#include "bench/meter.h"

#include "bench/statements.h"
#include "bench/subscriber.h"
#include "core/ready.h"
#include "platform/cfgclient.h"
#include "platform/zoil.h"

#include <malloc.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <semaphore>
#include <stdexcept>

using namespace qdb::bench;

extern "C"
{
    int __real_ZOILAddEventListener(ZOILEventListener listener);
    int __real_ZOILRemoveEventListener(ZOILEventListener listener);
    DataObjHeader *__real_ZOILGetObjByOID(const uint32_t *pOID);
    DataObjHeader *__real_ZOILGetObjByKey(const char *key);
    uint32_t *__real_ZOILListChildOIDByType(const uint32_t *pParentOID,
                                            uint16_t objType);
    uint32_t *__real_ZOILListParentOID(const uint32_t *pOID);
    int __real_ZOILDOGetObjKeyUTF8(const DataObjHeader *pDOH, char **ppKey);
    int __real_CfgSetAttributeInt(const char *key, int value, int reserved1,
                                  int reserved2);
    int __real_malloc_trim(size_t pad);

    int __wrap_ZOILAddEventListener(ZOILEventListener listener);
    int __wrap_ZOILRemoveEventListener(ZOILEventListener listener);
    DataObjHeader *__wrap_ZOILGetObjByOID(const uint32_t *pOID);
    DataObjHeader *__wrap_ZOILGetObjByKey(const char *key);
    uint32_t *__wrap_ZOILListChildOIDByType(const uint32_t *pParentOID,
                                            uint16_t objType);
    uint32_t *__wrap_ZOILListParentOID(const uint32_t *pOID);
    int __wrap_ZOILDOGetObjKeyUTF8(const DataObjHeader *pDOH, char **ppKey);
    int __wrap_CfgSetAttributeInt(const char *key, int value, int reserved1,
                                  int reserved2);
    int __wrap_malloc_trim(size_t pad);

    // qdb::QDVDBInit(), qdb::OnLoadObjectsCreation(),
    // qdb::ObjectNotification(const DataEventHeader *, uint16_t) and
    // qdb::handle_QuillonDB_NC_Event_Request(void *).
    int __real__ZN3qdb9QDVDBInitEv();
    int __real__ZN3qdb21OnLoadObjectsCreationEv();
    int __real__ZN3qdb18ObjectNotificationEPK15DataEventHeadert(
        const DataEventHeader *record, uint16_t eventType);
    void *__real__ZN3qdb33handle_QuillonDB_NC_Event_RequestEPv(void *argument);

    int __wrap__ZN3qdb9QDVDBInitEv();
    int __wrap__ZN3qdb21OnLoadObjectsCreationEv();
    int __wrap__ZN3qdb18ObjectNotificationEPK15DataEventHeadert(
        const DataEventHeader *record, uint16_t eventType);
    void *__wrap__ZN3qdb33handle_QuillonDB_NC_Event_RequestEPv(void *argument);
}

namespace
{

// An own clock only for a thread that has been told of; 0 would be a process.
constexpr clockid_t kNoClock = 0x7FFFFFFF;

std::atomic<clockid_t> gBenchClock = kNoClock;
std::atomic<clockid_t> gEventClock = kNoClock;
std::atomic<int64_t> gCallbacks = 0; // processor time, store included
std::atomic<int64_t> gStore = 0;

std::atomic<ZOILEventListener> gListener = nullptr;

// Set while no callback runs, and written by the event thread alone.
std::span<int64_t> gTimes;
std::atomic<size_t> gTimesNoted = 0;

std::atomic<uint64_t> gRecordsDone = 0;
std::atomic<int64_t> gLastRecordDone = 0;

std::atomic<int64_t> gReadyTime = 0;
std::atomic<int> gPasses = 0;
std::binary_semaphore gNCGate(0);

// Written by the service's `main` alone, before it is ready.
Memory gBeforeOpen;
Memory gPopulated;
Cost gPopulation;

int64_t Read(clockid_t clock)
{
    timespec time = {};
    if (clock != kNoClock)
    {
        clock_gettime(clock, &time);
    }
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

int64_t Now()
{
    return Clock::now().time_since_epoch().count();
}

clockid_t OwnClock()
{
    clockid_t clock = kNoClock;
    pthread_getcpuclockid(pthread_self(), &clock);
    return clock;
}

// What one reading costs: as much of each scope's two falls outside of what
// they measure.
int64_t ClockCost()
{
    static const int64_t cost = []
    {
        constexpr int kReadings = 10000;
        const int64_t begin = Read(CLOCK_THREAD_CPUTIME_ID);
        for (int i = 1; i < kReadings; ++i)
        {
            Read(CLOCK_THREAD_CPUTIME_ID);
        }
        return (Read(CLOCK_THREAD_CPUTIME_ID) - begin) / kReadings;
    }();
    return cost;
}

// Adds the processor time of its scope, its own included.
class Metered
{
  public:
    explicit Metered(std::atomic<int64_t> &sum)
        : sum_(sum), begin_(Read(CLOCK_THREAD_CPUTIME_ID))
    {
    }
    ~Metered()
    {
        sum_ += Read(CLOCK_THREAD_CPUTIME_ID) - begin_ + ClockCost();
    }
    Metered(const Metered &) = delete;
    Metered &operator=(const Metered &) = delete;

  private:
    std::atomic<int64_t> &sum_;
    int64_t begin_;
};

int OnEvent(DataEventHeader *record)
{
    if (gEventClock == kNoClock)
    {
        gEventClock = OwnClock();
    }
    if (const size_t index = gTimesNoted; index < gTimes.size())
    {
        gTimes[index] = Now();
        gTimesNoted = index + 1;
    }
    const Metered metered(gCallbacks);
    return gListener.load()(record);
}

} // namespace

namespace qdb::bench
{

// What the store does inside a callback is in both sums.
Reading ReadMeter()
{
    const int64_t store = gStore;
    const int64_t eventThread = Read(gEventClock) - gCallbacks;
    return {Read(CLOCK_PROCESS_CPUTIME_ID) - Read(gBenchClock) - eventThread -
                store,
            eventThread, store};
}

void LeaveThreadOut()
{
    ClockCost();
    gBenchClock = OwnClock();
}

void NoteEvents(std::span<int64_t> times)
{
    gTimes = times;
    gTimesNoted = 0;
}

size_t EventsNoted()
{
    return gTimesNoted;
}

uint64_t RecordsDone()
{
    return gRecordsDone;
}

int64_t LastRecordDone()
{
    return gLastRecordDone;
}

Memory ReadMemory()
{
    const struct mallinfo2 heap = mallinfo2();
    long pages = 0;
    FILE *file = std::fopen("/proc/self/statm", "r");
    if (file == nullptr || std::fscanf(file, "%*d %ld", &pages) != 1)
    {
        throw std::runtime_error("can't read /proc/self/statm");
    }
    std::fclose(file);
    return {static_cast<int64_t>(heap.uordblks + heap.hblkhd),
            pages * sysconf(_SC_PAGESIZE)};
}

void TrimMemory()
{
    __real_malloc_trim(0);
}

bool IsReady()
{
    return gReadyTime != 0;
}

StartUp ReadStartUp(int64_t begin)
{
    return {gReadyTime - begin, gBeforeOpen, gPopulated};
}

Cost PopulationCost()
{
    return gPopulation;
}

void LetNCThreadGo()
{
    gNCGate.release();
}

int NCPasses()
{
    return gPasses;
}

} // namespace qdb::bench

int __wrap_ZOILAddEventListener(ZOILEventListener listener)
{
    gListener = listener;
    return __real_ZOILAddEventListener(OnEvent);
}

int __wrap_ZOILRemoveEventListener(ZOILEventListener /*listener*/)
{
    return __real_ZOILRemoveEventListener(OnEvent);
}

DataObjHeader *__wrap_ZOILGetObjByOID(const uint32_t *pOID)
{
    const Metered metered(gStore);
    return __real_ZOILGetObjByOID(pOID);
}

DataObjHeader *__wrap_ZOILGetObjByKey(const char *key)
{
    const Metered metered(gStore);
    return __real_ZOILGetObjByKey(key);
}

uint32_t *__wrap_ZOILListChildOIDByType(const uint32_t *pParentOID,
                                        uint16_t objType)
{
    const Metered metered(gStore);
    return __real_ZOILListChildOIDByType(pParentOID, objType);
}

uint32_t *__wrap_ZOILListParentOID(const uint32_t *pOID)
{
    const Metered metered(gStore);
    return __real_ZOILListParentOID(pOID);
}

int __wrap_ZOILDOGetObjKeyUTF8(const DataObjHeader *pDOH, char **ppKey)
{
    const Metered metered(gStore);
    return __real_ZOILDOGetObjKeyUTF8(pDOH, ppKey);
}

int __wrap_CfgSetAttributeInt(const char *key, int value, int reserved1,
                              int reserved2)
{
    const int status =
        __real_CfgSetAttributeInt(key, value, reserved1, reserved2);
    if (std::strcmp(key, qdb::kReadyKey) == 0 && value == 1)
    {
        gReadyTime = Now();
    }
    return status;
}

// The NC thread's call at the end of every pass.
int __wrap_malloc_trim(size_t pad)
{
    const int result = __real_malloc_trim(pad);
    ++gPasses;
    return result;
}

int __wrap__ZN3qdb9QDVDBInitEv()
{
    gBeforeOpen = ReadMemory();
    return __real__ZN3qdb9QDVDBInitEv();
}

int __wrap__ZN3qdb21OnLoadObjectsCreationEv()
{
    const Reading before = ReadMeter();
    gPopulation.begin = Now();
    const int status = __real__ZN3qdb21OnLoadObjectsCreationEv();
    gPopulation.end = Now();
    const Reading after = ReadMeter();
    gPopulation.processor = after.service - before.service;
    gPopulation.store = after.store - before.store;
    gPopulation.rowsWritten = RowsWritten();
    gPopulated = ReadMemory();
    return status;
}

int __wrap__ZN3qdb18ObjectNotificationEPK15DataEventHeadert(
    const DataEventHeader *record, uint16_t eventType)
{
    const int status = __real__ZN3qdb18ObjectNotificationEPK15DataEventHeadert(
        record, eventType);
    gLastRecordDone = Now();
    ++gRecordsDone;
    return status;
}

void *__wrap__ZN3qdb33handle_QuillonDB_NC_Event_RequestEPv(void *argument)
{
    gNCGate.acquire();
    return __real__ZN3qdb33handle_QuillonDB_NC_Event_RequestEPv(argument);
}

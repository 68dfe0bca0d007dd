// Event delivery.
#include "standin/events.h"

#include "standin/cost.h"
#include "standin/standin.h"
#include "standin/state.h"
#include "standin/support.h"

#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>

namespace standin
{
namespace
{

struct Free
{
    void operator()(void *memory) const
    {
        std::free(memory);
    }
};

using Record = std::unique_ptr<void, Free>;

struct Queue
{
    std::mutex lock; // guards all below
    std::condition_variable changed;
    std::deque<Record> records;
    ZOILEventListener listener = nullptr;
    size_t inFlight = 0;
    std::vector<int64_t> deliveries; // of the next `toNote` records
    size_t toNote = 0;
    bool hasThread = false;
};

Queue &TheQueue()
{
    static Queue *const queue = new Queue;
    return *queue;
}

int64_t Now()
{
    return std::chrono::steady_clock::now().time_since_epoch().count();
}

// NULL, with a complaint, without memory.
Record MakeRecord(std::span<const uint8_t> bytes)
{
    Record record(ClaimedCopy(bytes, sizeof(DataEventHeader)));
    if (record == nullptr)
    {
        Complain("no memory for an event record of %zu bytes",
                 ClaimedSize(bytes));
    }
    return record;
}

Record MakeObjectList(uint16_t eventType, std::span<const uint32_t> oids)
{
    // The type fills half of its word; the rest of the header is 0.
    const auto count = static_cast<uint32_t>(oids.size());
    std::vector<uint32_t> words = {20 + 4 * count, eventType, 0, 0, count};
    words.insert(words.end(), oids.begin(), oids.end());
    const auto bytes = std::as_bytes(std::span(words));
    return MakeRecord(
        {reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()});
}

// Drops those that are NULL. Returns when the first may be delivered.
int64_t QueueRecords(std::vector<Record> records)
{
    Queue &queue = TheQueue();
    const std::lock_guard lock(queue.lock);
    for (Record &record : records)
    {
        if (record != nullptr)
        {
            queue.records.push_back(std::move(record));
        }
    }
    queue.changed.notify_all();
    return Now();
}

[[noreturn]] void Deliver()
{
    Queue &queue = TheQueue();
    std::unique_lock lock(queue.lock);
    for (;;)
    {
        queue.changed.wait(lock,
                           [&]
                           {
                               return queue.listener != nullptr &&
                                      !queue.records.empty();
                           });
        Record record = std::move(queue.records.front());
        queue.records.pop_front();
        const ZOILEventListener listener = queue.listener;
        queue.inFlight = 1;
        if (queue.deliveries.size() < queue.toNote)
        {
            queue.deliveries.push_back(Now());
        }
        lock.unlock();
        {
            const CallbackScope callback;
            listener(static_cast<DataEventHeader *>(record.get()));
        }
        record.reset();
        lock.lock();
        queue.inFlight = 0;
        queue.changed.notify_all();
    }
}

} // namespace

int AddListener(ZOILEventListener listener)
{
    if (listener == nullptr)
    {
        return 2;
    }
    Queue &queue = TheQueue();
    const std::lock_guard lock(queue.lock);
    if (queue.listener != nullptr && queue.listener != listener)
    {
        return 1;
    }
    queue.listener = listener;
    if (!queue.hasThread)
    {
        queue.hasThread = true;
        RunInBackground(Deliver);
    }
    queue.changed.notify_all();
    return 0;
}

int RemoveListener(ZOILEventListener listener)
{
    Queue &queue = TheQueue();
    const std::lock_guard lock(queue.lock);
    if (listener == nullptr || queue.listener != listener)
    {
        return 2;
    }
    queue.listener = nullptr;
    queue.changed.notify_all();
    return 0;
}

bool HasListener()
{
    Queue &queue = TheQueue();
    const std::lock_guard lock(queue.lock);
    return queue.listener != nullptr;
}

void SendRecord(std::span<const uint8_t> bytes)
{
    Start();
    std::vector<Record> one;
    one.push_back(MakeRecord(bytes));
    QueueRecords(std::move(one));
}

int64_t SendObjectList(uint16_t eventType, std::span<const uint32_t> oids)
{
    Start();
    std::vector<Record> one;
    one.push_back(MakeObjectList(eventType, oids));
    return QueueRecords(std::move(one));
}

int64_t SendObjects(uint16_t eventType, std::span<const uint32_t> oids)
{
    std::vector<Record> records;
    for (const uint32_t &oid : oids)
    {
        records.push_back(MakeObjectList(eventType, {&oid, 1}));
    }
    return QueueRecords(std::move(records));
}

void NoteDeliveries(size_t most)
{
    Queue &queue = TheQueue();
    const std::lock_guard lock(queue.lock);
    queue.deliveries.clear();
    queue.deliveries.reserve(most);
    queue.toNote = most;
}

std::vector<int64_t> Deliveries()
{
    Queue &queue = TheQueue();
    const std::lock_guard lock(queue.lock);
    queue.toNote = 0;
    return std::move(queue.deliveries);
}

void DropRecords()
{
    Queue &queue = TheQueue();
    const std::lock_guard lock(queue.lock);
    queue.records.clear();
    queue.changed.notify_all();
}

bool WaitForRecords(size_t left, Deadline deadline)
{
    Queue &queue = TheQueue();
    std::unique_lock lock(queue.lock);
    const auto few = [&]
    {
        return queue.records.size() + queue.inFlight <= left;
    };
    if (deadline)
    {
        return queue.changed.wait_until(lock, *deadline, few);
    }
    queue.changed.wait(lock,
                       [&]
                       {
                           return few() || queue.listener == nullptr;
                       });
    return few();
}

bool WaitDelivered(int timeoutMs)
{
    Start();
    return WaitForRecords(0, std::chrono::steady_clock::now() +
                                 std::chrono::milliseconds(timeoutMs));
}

} // namespace standin

// A list with its tail, a counter that the semaphore of the workers repeats,
// and ten nodes that are never allocated.
//
// Invariants:
// 1. The semaphore is posted once for each node, behind its appending: a worker
//    that got through finds a node, and no lock is held while it waits.
// 2. A record belongs to its node from QdbenQueue on, and goes with it.
// 3. The stop nodes are out at most once: the list would be a ring otherwise.
#include "queues/event_queue.h"

#include "core/fate.h"
#include "core/lock.h"
#include "core/log.h"
#include "core/object_order.h"
#include "core/state.h"
#include "core/threads.h"
#include "core/waiting.h"
#include "queues/admission.h"
#include "queues/event_record.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <functional>

namespace qdb
{

std::atomic<int> QdbEventQSize = 0;
std::atomic<int> gQdbSeqNumber = 0;

namespace
{

// At this length and below a worker waits for mapped OIDs again.
constexpr int kBacklogWorkedOff = 50;

pthread_mutex_t gOwnMutex = PTHREAD_MUTEX_INITIALIZER;

using StopRecords = std::array<DataEventHeader, kWorkerCount>;

consteval StopRecords MakeStopRecords()
{
    StopRecords records{};
    for (DataEventHeader &record : records)
    {
        record.evtType = DATA_EVENT_WORKER_EXIT;
    }
    return records;
}

// Records and nodes are static: a stop needs no memory, and whoever queues them
// may be gone when the workers take them.
constinit StopRecords gStopRecords = MakeStopRecords();
std::array<QdbEventNode, kWorkerCount> gStopNodes;

// How many of the nodes are on the queue or with a worker.
std::atomic<int> gStopNodesOut = 0;

// Of the nodes on the queue that HasRoomForBusRecord is about. Written under
// gQdbDBMutex.
std::atomic<int64_t> gBusBytes = 0;

// Clearings taken, under gQdbDBMutex, and those that are over.
uint64_t gClearingsTaken = 0;
std::atomic<uint64_t> gClearingsOver = 0;
pthread_mutex_t gClearingMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t gClearingOver = PTHREAD_COND_INITIALIZER;

bool IsClearing(const QdbEventNode &node)
{
    return node.data != nullptr && ClearsConfiguration(*node.data);
}

constexpr int64_t BusBytes(uint32_t recordSize)
{
    return int64_t{recordSize} + int64_t{sizeof(QdbEventNode)};
}

// By its type. The Data Manager tells of raw data, too; those count, and are
// let in all the same.
int64_t BusBytesOf(const QdbEventNode &node)
{
    const DataEventHeader *record = node.data;
    return record != nullptr && (record->evtType == DATA_EVENT_DBUS_TO_QDB ||
                                 record->evtType == ZO_EVENT_RAW_DATA_UPDATE)
               ? BusBytes(record->evtSize)
               : 0;
}

bool IsStopNode(const QdbEventNode *node)
{
    const std::less<const QdbEventNode *> before;
    return !before(node, gStopNodes.data()) &&
           before(node, gStopNodes.data() + gStopNodes.size());
}

void FreeRecord(DataEventHeader *record)
{
    if (record != nullptr && record->evtType != DATA_EVENT_WORKER_EXIT)
    {
        std::free(record);
    }
}

// The counters as they were before a node was appended.
struct Before
{
    int seqNumber = 0;
    int size = 0;
};

// With the queue's lock.
void CountLength(int length)
{
    const auto now = static_cast<uint64_t>(std::max(length, 0));
    Statistics &figures = Figures();
    Put(figures.queueLength, now);
    if (now > figures.queueMost.load(std::memory_order_relaxed))
    {
        Put(figures.queueMost, now);
    }
}

Before Append(QdbEventQueue &queue, QdbEventNode *node)
{
    const PlatformLock lock(gQdbDBMutex, gOwnMutex);
    if (queue.tail == nullptr)
    {
        queue.head = node;
        Put(Figures().queueOldest, node->came);
    }
    else
    {
        queue.tail->next = node;
    }
    queue.tail = node;
    gBusBytes += BusBytesOf(*node);
    const Before before = {gQdbSeqNumber.fetch_add(1),
                           QdbEventQSize.fetch_add(1)};
    CountLength(before.size + 1);
    return before;
}

// A record that finds no memory for its node, with the objects in it.
void CountLost(const DataEventHeader *record)
{
    CountOne(Figures().dropped, DropCause::NoMemory);
    if (record != nullptr)
    {
        CountFates(RoadOf(*record), Fate::NoMemory, ObjectsIn(*record));
    }
}

// What every record goes through; without a node it is lost.
void Enqueue(QdbEventQueue &queue, QdbEventNode *node, DataEventHeader *record)
{
    Before before;
    if (node != nullptr)
    {
        before = Append(queue, node);
        sem_post(&gQdbEventSem);
    }
    else
    {
        CountLost(record);
        FreeRecord(record);
    }
    LogExit("QdbenQueue");
    QDB_LOG(kLogTrace, "%s: QdbenQueued for SeqNumber=%d", before.seqNumber);
    QDB_LOG(kLogTrace, "%s: QdbenQueued for QdbEventQSize=%d", before.size);
}

QdbEventNode *TakeHead(QdbEventQueue &queue)
{
    QdbEventNode *node = queue.head;
    queue.head = node->next;
    if (queue.head == nullptr)
    {
        queue.tail = nullptr;
    }
    Put(Figures().queueOldest, queue.head == nullptr ? 0 : queue.head->came);
    gBusBytes -= BusBytesOf(*node);
    node->clearings = gClearingsTaken;
    gClearingsTaken += IsClearing(*node) ? 1U : 0U;
    return node;
}

} // namespace

QdbEventNode *QdbnewNode(DataEventHeader *data, int seqNo)
{
    auto *node = static_cast<QdbEventNode *>(std::malloc(sizeof(QdbEventNode)));
    if (node == nullptr)
    {
        return nullptr;
    }
    LogEntry("QdbnewNode");
    *node = {data, seqNo, nullptr, MomentNow(), 0, 0};
    LogExit("QdbnewNode");
    return node;
}

void QdbenQueue(QdbEventQueue *queue, DataEventHeader *record)
{
    LogEntry("QdbenQueue");
    if (record != nullptr)
    {
        CountArrivals(RoadOf(*record), ObjectsIn(*record));
    }
    Enqueue(*queue, QdbnewNode(record, gQdbSeqNumber), record);
}

bool HasRoomForBusRecord(uint32_t size)
{
    return gBusBytes + BusBytes(size) <= kMaxBusBytes;
}

QdbEventNode *QdbdeQueue(QdbEventQueue *queue)
{
    LogEntry("QdbdeQueue");
    AwaitRecord();
    QdbEventNode *node = nullptr;
    int sizeBefore = 0;
    {
        const PlatformLock lock(gQdbDBMutex, gOwnMutex);
        if (queue->head != nullptr)
        {
            node = TakeHead(*queue);
            // Under the lock, so that of two records about one object the
            // later one has the greater tick.
            node->taken = Tick();
            LogExit("QdbdeQueue");
            sizeBefore = QdbEventQSize.fetch_sub(1);
            CountLength(sizeBefore - 1);
            if (sizeBefore - 1 <= kBacklogWorkedOff)
            {
                gSkipConstraintCheck = 0;
            }
        }
    }
    QDB_LOG(kLogTrace, "%s: QdbdeQueue for QdbEventQSize=%d", sizeBefore);
    return node;
}

void AwaitClearings(const QdbEventNode &node)
{
    if (node.data->evtType != DATA_EVENT_DBUS_TO_QDB ||
        gClearingsOver >= node.clearings)
    {
        return;
    }
    constexpr int64_t kLookAgain = 100000000; // nanoseconds
    const Wait wait;
    const LeafLock lock(gClearingMutex);
    while (gClearingsOver < node.clearings && !StopPatienceIsOver())
    {
        const timespec until = ToTimespec(NowNanoseconds() + kLookAgain);
        pthread_cond_clockwait(&gClearingOver, &gClearingMutex, CLOCK_MONOTONIC,
                               &until);
    }
}

void QueueStopRecords()
{
    // Invariant 3. A second stop finds the first one's nodes still out.
    int out = 0;
    if (!gStopNodesOut.compare_exchange_strong(out, kWorkerCount))
    {
        return;
    }
    for (size_t i = 0; i < gStopNodes.size(); ++i)
    {
        LogEntry("QdbenQueue");
        gStopNodes[i] = {&gStopRecords[i], gQdbSeqNumber, nullptr, 0, 0, 0};
        Enqueue(*gQdbEventQueue, &gStopNodes[i], &gStopRecords[i]);
    }
}

void FreeEventNode::operator()(QdbEventNode *node) const
{
    NoteProgress();
    if (IsStopNode(node))
    {
        --gStopNodesOut;
        return;
    }
    if (IsClearing(*node))
    {
        const LeafLock lock(gClearingMutex);
        ++gClearingsOver;
        pthread_cond_broadcast(&gClearingOver);
    }
    FreeRecord(node->data);
    std::free(node);
}

void FreeEventQueue(QdbEventQueue *queue)
{
    while (queue != nullptr && queue->head != nullptr)
    {
        const EventNodePtr node(TakeHead(*queue));
    }
    std::free(queue);
}

} // namespace qdb

// The one queue of event records.
//
// Strictly first in, first out. Any thread appends; the workers take. What the
// Data Manager tells has no limit; what comes from the bus has, since anybody
// may send there (HasRoomForBusRecord). The queue owns its nodes and records
// from QdbenQueue on, and the taker owns both from QdbdeQueue on. A stop record
// (DATA_EVENT_WORKER_EXIT) is static memory and is never freed, nor are the
// nodes that a stop brings along.
#pragma once

#include "platform/zoil.h"

#include <atomic>
#include <memory>

namespace qdb
{

struct QdbEventNode
{
    DataEventHeader *data;
    int seqNo; // for the log alone; two nodes may carry the same number
    QdbEventNode *next;
    uint64_t came;      // the moment of core/statistics.h
    uint64_t taken;     // the tick of core/object_order.h at which it was taken
    uint64_t clearings; // that were taken before it
};

// Guarded by gQdbDBMutex.
struct QdbEventQueue
{
    QdbEventNode *head;
    QdbEventNode *tail;
};

// Nodes on the queue. Written under gQdbDBMutex.
extern std::atomic<int> QdbEventQSize;

// The next sequence number; counts up for the life of the process.
extern std::atomic<int> gQdbSeqNumber;

// A node that belongs to the caller; NULL when there is no memory.
QdbEventNode *QdbnewNode(DataEventHeader *data, int seqNo);

// Appends a record, heap memory for free(), and posts gQdbEventSem. Never
// fails visibly: without memory for a node the record is freed and the event
// is lost. Takes gQdbDBMutex.
void QdbenQueue(QdbEventQueue *queue, DataEventHeader *record);

// What the records on the queue that came from the bus may hold together, their
// nodes included, in bytes.
inline constexpr int64_t kMaxBusBytes = int64_t{16} << 20;

// Whether one more record of `size` bytes from the bus may be queued. For the
// signal thread, which alone queues them. Takes no lock.
bool HasRoomForBusRecord(uint32_t size);

// Waits for gQdbEventSem and takes the oldest node; NULL when the queue is
// empty all the same. Ticks are in the order of taking. At 50 nodes or fewer
// clears gSkipConstraintCheck. Takes gQdbDBMutex.
QdbEventNode *QdbdeQueue(QdbEventQueue *queue);

// A clearing of the configuration claims no object: it removes whatever rows
// there are when its statements run, which a busy database may keep waiting. So
// what the bus told later waits here until the clearings taken before it are
// over, their nodes freed, or a stop has lost its patience. Other records
// don't.
//
// Who clears may wait for the turn at the database, SQLite and the pauses of a
// busy database, never for the platform. Who waits may hold nothing.
void AwaitClearings(const QdbEventNode &node);

// Puts one stop record per worker on gQdbEventQueue. Needs no memory. Does
// nothing while one of an earlier call is on its way to a worker.
void QueueStopRecords();

// Frees a node and its record, but for a stop record and a node of
// QueueStopRecords; what the node stood for is done with. NULL is a no-op.
struct FreeEventNode
{
    void operator()(QdbEventNode *node) const;
};
using EventNodePtr = std::unique_ptr<QdbEventNode, FreeEventNode>;

// Frees all that is left on the queue and the queue itself; no thread may use
// it any more. NULL is a no-op.
void FreeEventQueue(QdbEventQueue *queue);

} // namespace qdb

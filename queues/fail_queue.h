// Operations that the database refused, kept until they can be repeated.
//
// Invariants:
// 1. `count` is the number of nodes less one, since the first node put on an
//    empty queue doesn't add to it. A drain takes exactly `count` nodes, so
//    that the newest one stays until another failure pushes it forward. An
//    empty queue has 0 when it is new or was found empty, and -1 when its last
//    node has just been taken.
// 2. An index says which type failed (QdbFailObjTypeIndex, in
//    objects/catalogue.h).
//
// Any thread that runs a handler appends; one thread takes. Duplicates are not
// detected. Nothing survives a restart.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace qdb
{

// What is to be done again. The numbers appear in logs.
enum class FailedOperation : uint32_t
{
    Delete = 0,
    Create = 1,
    Refresh = 2,
    RefreshFailure = 3, // the row wasn't there
};

struct QdbFailQNode
{
    uint32_t oid;
    FailedOperation operation;
    int index;
    QdbFailQNode *next;
};

// Guarded by a mutex of its own, a leaf.
struct FailQueue
{
    QdbFailQNode *head;
    QdbFailQNode *tail;
    std::atomic<int> count; // also read without the mutex
};

// A node for free(); NULL when there is no memory.
QdbFailQNode *QdbFailnewNode(uint32_t oid, FailedOperation operation,
                             int index);

// Appends a failed operation; without memory it is logged and dropped.
void QdbFailenQueue(FailQueue *queue, uint32_t oid, FailedOperation operation,
                    int index);

// Takes the oldest node, for free(); NULL and count 0 when the queue is empty.
QdbFailQNode *QdbFaildeQueue(FailQueue *queue);

// Frees what is left on the queue and the queue itself; no thread may use it
// any more. NULL is a no-op.
void FreeFailQueue(FailQueue *queue);

} // namespace qdb

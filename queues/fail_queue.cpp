// See the header for what `count` means; the lines that keep it so are marked.
#include "queues/fail_queue.h"

#include "core/fate.h"
#include "core/lock.h"
#include "core/log.h"

#include <cstdlib>

namespace qdb
{
namespace
{

// A leaf: handlers append with their turn in hand.
pthread_mutex_t gMutex = PTHREAD_MUTEX_INITIALIZER;

} // namespace

QdbFailQNode *QdbFailnewNode(uint32_t oid, FailedOperation operation, int index)
{
    auto *node =
        static_cast<QdbFailQNode *>(std::calloc(1, sizeof(QdbFailQNode)));
    if (node != nullptr)
    {
        *node = {oid, operation, index, nullptr};
    }
    return node;
}

void QdbFailenQueue(FailQueue *queue, uint32_t oid, FailedOperation operation,
                    int index)
{
    // Outside the lock; whoever has it must not wait for the allocator.
    QdbFailQNode *node = QdbFailnewNode(oid, operation, index);
    if (node == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: QdbFailenQueue:Failed to allocate memory for "
                           "QdbFailQNode");
        return;
    }
    NoteFate(Fate::Kept);
    Count(Figures().failedKept);
    Count(Figures().failedWaiting);
    const LeafLock lock(gMutex);
    // Invariant 1: the first node of an empty queue isn't counted, so that the
    // -1 of a queue just emptied lasts until the next drain finds it.
    if (queue->tail == nullptr)
    {
        queue->head = node;
    }
    else
    {
        queue->tail->next = node;
        ++queue->count;
    }
    queue->tail = node;
}

QdbFailQNode *QdbFaildeQueue(FailQueue *queue)
{
    const LeafLock lock(gMutex);
    QdbFailQNode *node = queue->head;
    // The -1 that the last node left becomes 0 again here, and only here.
    if (node == nullptr)
    {
        queue->count = 0;
        QDB_LOG(kLogTrace, "%s: QdbFaildeQueue: Queue is empty");
        return nullptr;
    }
    queue->head = node->next;
    if (queue->head == nullptr)
    {
        queue->tail = nullptr;
    }
    Count(Figures().failedTaken);
    Uncount(Figures().failedWaiting);
    CountArrivals(Road::Drain, 1);
    // Down to -1 with the last node, which was never counted.
    --queue->count;
    return node;
}

void FreeFailQueue(FailQueue *queue)
{
    while (queue != nullptr && queue->head != nullptr)
    {
        QdbFailQNode *node = queue->head;
        queue->head = node->next;
        std::free(node);
    }
    std::free(queue);
}

} // namespace qdb

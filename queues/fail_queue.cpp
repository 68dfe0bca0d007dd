#include "queues/fail_queue.h"

#include "core/lock.h"
#include "core/log.h"
#include "queues/sorted_types.h"

#include <cstdlib>

namespace qdb
{
namespace
{

pthread_mutex_t gMutex = PTHREAD_MUTEX_INITIALIZER;

// Types whose failed operations are kept. 0 stands for no type.
int gFailTypes[kFailTypeCount] = {
    0,     0x15,  0x16,  0x17,  0x19,  0x1B,  0x40,  0x42,   0x49,  0x58,
    0x5D,  0x5E,  0xD2,  0xD3,  0xE1,  0xE6,  0x220, 0x221,  0x223, 0x230,
    0x231, 0x701, 0x741, 0x781, 0x802, 0x803, 0x804, 0x805,  0x806, 0x807,
    0x808, 0x809, 0x80A, 0x80B, 0x80C, 0xA03, 0xD04, 0x2356,
};

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
    QdbFailQNode *node = QdbFailnewNode(oid, operation, index);
    if (node == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: QdbFailenQueue:Failed to allocate memory for "
                           "QdbFailQNode");
        return;
    }
    const LeafLock lock(gMutex);
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
    --queue->count;
    return node;
}

int QdbFailObjTypeIndex(int objType)
{
    return FindType(gFailTypes, objType);
}

void SortFailTypes()
{
    SortTypes(gFailTypes);
}

std::span<const int, kFailTypeCount> FailTypes()
{
    return gFailTypes;
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

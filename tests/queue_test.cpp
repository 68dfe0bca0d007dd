// The two queues: events on their way to the workers, and operations that the
// database refused.

#include "queues/fail_queue.h"
#include "tests/support/db_fixture.h"
#include "tests/support/event_records.h"
#include "tests/support/no_memory.h"
#include "tests/support/wait.h"

#include <set>
#include <thread>

namespace qdb::test
{
namespace
{

// The number tells records apart.
Bytes Numbered(uint32_t number)
{
    return Record(3450, {number});
}

EventNodePtr Take()
{
    return EventNodePtr(QdbdeQueue(gQdbEventQueue));
}

uint32_t NumberOf(const EventNodePtr &node)
{
    return *RecordWord(*node->data, sizeof(DataEventHeader));
}

// Or none at all.
bool IsStop(const EventNodePtr &node)
{
    return node == nullptr || node->data->evtType == DATA_EVENT_WORKER_EXIT;
}

struct QueueTest : ::testing::Test
{
    Mirror mirror_;
};

// --- The event queue ---------------------------------------------------------

TEST_F(QueueTest, EventsComeOutAsTheyWentInAndFiftyEndTheBacklog)
{
    constexpr int kEvents = 53;
    // The emptied queue takes and gives again.
    for (int round = 0; round < 2; ++round)
    {
        const int first = gQdbSeqNumber;
        for (int i = 0; i < kEvents; ++i)
        {
            Enqueue(Numbered(static_cast<uint32_t>(i)));
        }
        for (int i = 0; i < kEvents; ++i)
        {
            gSkipConstraintCheck = 1;
            const EventNodePtr node = Take();
            EXPECT_EQ(NumberOf(node), static_cast<uint32_t>(i));
            EXPECT_EQ(node->seqNo, first + i);
            const int left = kEvents - 1 - i;
            EXPECT_EQ(QdbEventQSize, left);
            EXPECT_EQ(gSkipConstraintCheck, left > 50 ? 1 : 0);
        }
        EXPECT_EQ(gQdbSeqNumber, first + kEvents);
        // A post without a node: the taker comes back with nothing.
        sem_post(&gQdbEventSem);
        EXPECT_EQ(Take(), nullptr);
        EXPECT_EQ(QdbEventQSize, 0);
    }
}

TEST_F(QueueTest, StopRecordsNeedNoMemoryAndAreNeverFreed)
{
    Enqueue(Numbered(1));
    // Two stops at once; and again when all that were queued are done with.
    for (const int before : {1, 0})
    {
        tNoMemory = true;
        QueueStopRecords();
        QueueStopRecords();
        tNoMemory = false;
        EXPECT_EQ(QdbEventQSize, before + kWorkerCount);
        if (before == 1)
        {
            EXPECT_FALSE(IsStop(Take()));
        }
        std::set<const DataEventHeader *> records;
        for (int i = 0; i < kWorkerCount; ++i)
        {
            const EventNodePtr node = Take();
            ASSERT_NE(node, nullptr);
            EXPECT_TRUE(IsStop(node));
            records.insert(node->data);
            QueueStopRecords(); // one is still on its way
        }
        EXPECT_EQ(records.size(), 10U);
    }
    // What is left at the end is freed with the queue, but for the stop
    // records: the mirror does so.
    QueueStopRecords();
    Enqueue(Numbered(2));
}

// --- The fail queue ----------------------------------------------------------

void Fail(uint32_t oid)
{
    QdbFailenQueue(gFailQueue, oid, FailedOperation::Create, 1);
}

// The OID of the oldest failure; 0: there is none.
uint32_t TakeFailure()
{
    QdbFailQNode *node = QdbFaildeQueue(gFailQueue);
    const uint32_t oid = node == nullptr ? 0 : node->oid;
    std::free(node);
    return oid;
}

TEST_F(QueueTest, FailCountIsOneLess)
{
    // Steps that put the next OID on the queue (0), or take that one.
    using Steps = std::vector<std::pair<uint32_t, int>>; // and the count then
    const Steps kCases[] = {
        {{0, 0}, {0, 1}, {0, 2}, {1, 1}, {2, 0}, {0, 1}, {3, 0}, {4, -1}},
        {{0, 0}, {1, -1}},
    };
    for (const Steps &steps : kCases)
    {
        uint32_t put = 0;
        for (const auto &[taken, count] : steps)
        {
            if (taken == 0)
            {
                Fail(++put);
            }
            else
            {
                EXPECT_EQ(TakeFailure(), taken);
            }
            EXPECT_EQ(gFailQueue.load()->count, count);
        }
        EXPECT_EQ(TakeFailure(), 0U);
        EXPECT_EQ(gFailQueue.load()->count, 0);
    }
}

// --- Both --------------------------------------------------------------------

void PutEvent(uint32_t number)
{
    Enqueue(Numbered(number));
}

uint32_t TakeEvent()
{
    return QdbEventQSize == 0 ? 0 : NumberOf(Take());
}

TEST_F(QueueTest, ManyThreadsLoseNothing)
{
    constexpr uint32_t kThreads = 8;
    constexpr uint32_t kEach = 5000;
    const struct
    {
        const char *name;
        void (*put)(uint32_t);
        uint32_t (*take)();
    } kQueues[] = {{"events", PutEvent, TakeEvent},
                   {"failures", Fail, TakeFailure}};
    for (const auto &queue : kQueues)
    {
        SCOPED_TRACE(queue.name);
        std::vector<std::jthread> threads;
        for (uint32_t thread = 0; thread < kThreads; ++thread)
        {
            threads.emplace_back(
                [thread, &queue]
                {
                    for (uint32_t i = 1; i <= kEach; ++i)
                    {
                        queue.put(i * kThreads + thread);
                    }
                });
        }
        // They are taken meanwhile, those of one thread in their order.
        uint32_t last[kThreads] = {};
        uint32_t taken = 0;
        EXPECT_TRUE(WaitUntil(
            [&]
            {
                while (const uint32_t number = queue.take())
                {
                    EXPECT_EQ(number / kThreads, ++last[number % kThreads]);
                    ++taken;
                }
                return taken == kThreads * kEach;
            }));
    }
}

TEST_F(QueueTest, WithoutMemoryOneIsLost)
{
    DataEventHeader stop = {0, DATA_EVENT_WORKER_EXIT, 0, {}};
    auto *event = static_cast<DataEventHeader *>(std::calloc(1, sizeof(stop)));
    const int number = gQdbSeqNumber;
    Fail(1);
    Fail(2);
    CaptureLog();
    tNoMemory = true;
    QdbenQueue(gQdbEventQueue, event);
    QdbenQueue(gQdbEventQueue, &stop); // and is not freed
    Fail(3);
    tNoMemory = false;
    EXPECT_EQ(CountLog("QdbFailenQueue:Failed to allocate memory for "
                       "QdbFailQNode"),
              1);
    EXPECT_EQ(TakeQueued(), std::vector<Bytes>{});
    EXPECT_EQ(gQdbSeqNumber, number);
    // What stays is freed with the queue.
    EXPECT_EQ(gFailQueue.load()->count, 1);
    EXPECT_EQ(TakeFailure(), 1U);
}

} // namespace
} // namespace qdb::test

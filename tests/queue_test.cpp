// The two queues: events on their way to the workers, and operations that the
// database refused.
#include "core/state.h"
#include "queues/event_queue.h"
#include "queues/event_record.h"
#include "queues/fail_queue.h"
#include "tests/support/log_capture.h"
#include "tests/support/mirror.h"
#include "tests/support/no_memory.h"
#include "tests/support/wait.h"

#include <algorithm>
#include <latch>
#include <memory>
#include <set>
#include <thread>

namespace qdb::test
{
namespace
{

using Lines = std::vector<std::string>;

struct QueueTest : ::testing::Test
{
    Mirror mirror_;
};

// A record as the listener makes it; evtSize tells records apart.
DataEventHeader *NewRecord(uint32_t number, uint16_t type = 3450)
{
    auto *record =
        static_cast<DataEventHeader *>(std::calloc(1, sizeof(DataEventHeader)));
    record->evtSize = number;
    record->evtType = type;
    return record;
}

EventNodePtr Take()
{
    return EventNodePtr(QdbdeQueue(gQdbEventQueue));
}

int Posts()
{
    int posts = -1;
    sem_getvalue(&gQdbEventSem, &posts);
    return posts;
}

// --- The event queue ------------------------------------------------------

TEST_F(QueueTest, EventsComeOutAsTheyWentIn)
{
    const int first = gQdbSeqNumber;
    for (uint32_t number = 1; number <= 3; ++number)
    {
        QdbenQueue(gQdbEventQueue, NewRecord(number));
    }
    EXPECT_EQ(QdbEventQSize, 3);
    EXPECT_EQ(gQdbSeqNumber, first + 3);
    EXPECT_EQ(Posts(), 3);
    for (int i = 0; i < 3; ++i)
    {
        const EventNodePtr node = Take();
        EXPECT_EQ(node->data->evtSize, static_cast<uint32_t>(i) + 1);
        EXPECT_EQ(node->seqNo, first + i);
    }
    EXPECT_EQ(QdbEventQSize, 0);

    // A post without a node: the taker comes back with nothing.
    sem_post(&gQdbEventSem);
    EXPECT_EQ(Take(), nullptr);
    EXPECT_EQ(QdbEventQSize, 0);

    // The emptied queue takes and gives again.
    QdbenQueue(gQdbEventQueue, NewRecord(4));
    EXPECT_EQ(Take()->data->evtSize, 4U);
    EXPECT_EQ(Posts(), 0);
}

TEST_F(QueueTest, FiftyNodesEndTheBacklog)
{
    for (uint32_t number = 0; number < 53; ++number)
    {
        QdbenQueue(gQdbEventQueue, NewRecord(number));
    }
    gSkipConstraintCheck = 1;
    Take(); // 53 to 52
    EXPECT_EQ(gSkipConstraintCheck, 1);
    Take(); // 52 to 51
    EXPECT_EQ(gSkipConstraintCheck, 1);
    Take(); // 51 to 50
    EXPECT_EQ(gSkipConstraintCheck, 0);
    gSkipConstraintCheck = 1;
    Take(); // 50 to 49
    EXPECT_EQ(gSkipConstraintCheck, 0);
}

TEST_F(QueueTest, StopRecordsNeedNoMemoryAndAreNeverFreed)
{
    QdbenQueue(gQdbEventQueue, NewRecord(1));
    // Two stops at once; and again when all that were queued are done with.
    for (const int before : {1, 0})
    {
        tNoMemory = true;
        QueueStopRecords();
        QueueStopRecords();
        tNoMemory = false;
        EXPECT_EQ(QdbEventQSize, before + kWorkerCount);
        EXPECT_EQ(Posts(), before + kWorkerCount);
        if (before == 1)
        {
            EXPECT_EQ(Take()->data->evtType, 3450);
        }
        std::set<const DataEventHeader *> records;
        for (int i = 0; i < kWorkerCount; ++i)
        {
            const EventNodePtr node = Take();
            ASSERT_NE(node, nullptr);
            EXPECT_EQ(node->data->evtType, DATA_EVENT_WORKER_EXIT);
            records.insert(node->data);
            QueueStopRecords(); // one is still on its way
        }
        EXPECT_EQ(records.size(), 10U);
    }
    // What is left at the end is freed with the queue, but for the stop
    // records: the mirror does so.
    QueueStopRecords();
    QdbenQueue(gQdbEventQueue, NewRecord(2));
}

constexpr uint32_t kProducers = 4;
constexpr uint32_t kPerProducer = 2000;

void Produce(uint32_t producer)
{
    for (uint32_t i = 0; i < kPerProducer; ++i)
    {
        QdbenQueue(gQdbEventQueue, NewRecord(producer << 16 | i));
    }
}

// The records that a consumer takes up to a stop record.
std::vector<uint32_t> Consume()
{
    std::vector<uint32_t> taken;
    while (true)
    {
        const EventNodePtr node = Take();
        if (node == nullptr)
        {
            ADD_FAILURE() << "a post without a node";
            continue;
        }
        if (node->data->evtType == DATA_EVENT_WORKER_EXIT)
        {
            return taken;
        }
        taken.push_back(node->data->evtSize);
    }
}

TEST_F(QueueTest, ManyThreadsLoseNothing)
{
    const int first = gQdbSeqNumber;
    std::vector<uint32_t> taken[4];
    std::vector<std::jthread> consumers;
    for (std::vector<uint32_t> &list : taken)
    {
        consumers.emplace_back(
            [&list]
            {
                list = Consume();
            });
    }
    std::vector<std::jthread> producers;
    for (uint32_t producer = 0; producer < kProducers; ++producer)
    {
        producers.emplace_back(Produce, producer);
    }
    producers.clear();
    QueueStopRecords();
    consumers.clear();

    std::vector<uint32_t> all;
    for (const std::vector<uint32_t> &list : taken)
    {
        // One consumer sees each producer's records in their order.
        std::vector<uint32_t> sorted = list;
        std::ranges::stable_sort(sorted, {},
                                 [](uint32_t number)
                                 {
                                     return number >> 16;
                                 });
        EXPECT_TRUE(std::ranges::is_sorted(sorted));
        all.insert(all.end(), list.begin(), list.end());
    }
    std::ranges::sort(all);
    std::vector<uint32_t> expected;
    for (uint32_t i = 0; i < kProducers * kPerProducer; ++i)
    {
        expected.push_back(i / kPerProducer << 16 | i % kPerProducer);
    }
    EXPECT_EQ(all, expected);
    EXPECT_EQ(QdbEventQSize, kWorkerCount - 4);
    EXPECT_EQ(gQdbSeqNumber, first + 8000 + kWorkerCount);
}

TEST_F(QueueTest, WithoutMemoryTheEventIsLostAndAStopRecordIsLeftAlone)
{
    DataEventHeader stop = {0, DATA_EVENT_WORKER_EXIT, 0, {}};
    for (DataEventHeader *record : {NewRecord(1), &stop})
    {
        const int number = gQdbSeqNumber;
        tNoMemory = true;
        QdbenQueue(gQdbEventQueue, record);
        tNoMemory = false;
        EXPECT_EQ(QdbEventQSize, 0);
        EXPECT_EQ(gQdbSeqNumber, number);
        EXPECT_EQ(Posts(), 0);
    }
}

// --- The fail queue -------------------------------------------------------

TEST_F(QueueTest, FailCountIsOneLess)
{
    // Each letter puts a node on the queue (p) or takes one (t).
    const std::pair<const char *, std::vector<int>> kCases[] = {
        {"pppttp", {0, 1, 2, 1, 0, 1}},
        {"pt", {0, -1}},
        {"t", {0}},
        {"pptttpp", {0, 1, 0, -1, 0, 0, 1}},
    };
    for (const auto &[steps, expected] : kCases)
    {
        SCOPED_TRACE(steps);
        FailQueue queue = {};
        std::vector<int> counts;
        uint32_t put = 0;
        uint32_t taken = 0;
        const auto take = [&]
        {
            QdbFailQNode *node = QdbFaildeQueue(&queue);
            EXPECT_EQ(node == nullptr, taken == put);
            EXPECT_EQ(node == nullptr ? put : node->oid,
                      node == nullptr ? taken : ++taken);
            std::free(node);
        };
        for (const char step : std::string(steps))
        {
            if (step == 'p')
            {
                QdbFailenQueue(&queue, ++put, FailedOperation::Create, 0);
            }
            else
            {
                take();
            }
            counts.push_back(queue.count);
        }
        EXPECT_EQ(counts, expected);
        while (taken < put)
        {
            take();
        }
        EXPECT_EQ(queue.head, nullptr);
        EXPECT_EQ(queue.tail, nullptr);
    }
}

constexpr uint32_t kThreads = 8;
constexpr uint32_t kEach = 5000;

// Threads that begin together and put distinct OIDs on the fail queue.
std::vector<std::jthread> StartFailures()
{
    const auto start = std::make_shared<std::latch>(kThreads);
    std::vector<std::jthread> threads;
    for (uint32_t thread = 0; thread < kThreads; ++thread)
    {
        threads.emplace_back(
            [start, thread]
            {
                start->arrive_and_wait();
                for (uint32_t i = 0; i < kEach; ++i)
                {
                    QdbFailenQueue(gFailQueue, thread << 16 | i,
                                   FailedOperation::Create, 1);
                }
            });
    }
    return threads;
}

TEST_F(QueueTest, ConcurrentFailuresAreAllKept)
{
    StartFailures().clear();
    FailQueue *queue = gFailQueue;
    EXPECT_EQ(queue->count, 39999);
    std::set<uint32_t> oids;
    while (QdbFailQNode *node = QdbFaildeQueue(queue))
    {
        oids.insert(node->oid);
        std::free(node);
    }
    EXPECT_EQ(oids.size(), 40000U);
    EXPECT_EQ(queue->count, 0);

    // The same while they are taken.
    oids.clear();
    const std::vector<std::jthread> threads = StartFailures();
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            while (QdbFailQNode *node = QdbFaildeQueue(queue))
            {
                EXPECT_TRUE(oids.insert(node->oid).second);
                std::free(node);
            }
            return oids.size() == kThreads * kEach;
        }));
}

TEST_F(QueueTest, WithoutMemoryAFailureIsDropped)
{
    QdbFailenQueue(gFailQueue, 1, FailedOperation::Create, 1);
    QdbFailenQueue(gFailQueue, 2, FailedOperation::Create, 1);
    CaptureLog();
    tNoMemory = true;
    QdbFailenQueue(gFailQueue, 3, FailedOperation::Create, 1);
    tNoMemory = false;
    EXPECT_EQ(LogLines(), Lines{"QdbFailenQueue:Failed to allocate memory for "
                                "QdbFailQNode"});
    // What stays is freed with the queue.
    const FailQueue &queue = *gFailQueue;
    EXPECT_EQ(queue.count, 1);
    EXPECT_EQ(queue.tail->oid, 2U);
}

} // namespace
} // namespace qdb::test

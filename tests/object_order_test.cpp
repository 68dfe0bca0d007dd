// What orders the handlers of one object, and what they know of it.

#include "core/object_order.h"
#include "core/sleep.h"
#include "core/state.h"
#include "events/dispatch.h"
#include "queues/event_queue.h"
#include "queues/event_record.h"
#include "tests/support/event_records.h"
#include "tests/support/handler_fixture.h"
#include "tests/support/stream_driver.h"

#include <atomic>
#include <thread>

namespace qdb::test
{
namespace
{

constexpr uint32_t kOid = 0x100;

TEST(ObjectOrder, AClaimIsHadByOneAndLeftToThoseWhoWait)
{
    std::atomic<bool> hadIt = false;
    {
        ObjectClaim claim(kOid, Tick());
        EXPECT_EQ(ObjectClaim::OfThread(), &claim);
        std::thread waiting(
            []
            {
                EXPECT_TRUE(ObjectClaim(kOid + 1, Tick()).IsHeld());
                EXPECT_FALSE(ObjectClaim(kOid, Tick(), 5).IsHeld());
            });
        waiting.join();
        waiting = std::thread(
            [&]
            {
                const ObjectClaim other(kOid, Tick());
                hadIt = true;
            });
        EXPECT_FALSE(hadIt);
        EXPECT_TRUE(WaitUntil(
            [&]
            {
                EXPECT_TRUE(claim.LetOthersGoFirst());
                return hadIt.load();
            }));
        EXPECT_TRUE(claim.IsHeld());
        waiting.join();
    }
    EXPECT_EQ(ObjectClaim::OfThread(), nullptr);
    EXPECT_TRUE(ObjectClaim(kOid, Tick(), 0).IsHeld()) << "free again";
}

// Many more objects than the memory of ticks has places.
TEST(ObjectOrder, NothingNewIsForgotten)
{
    constexpr uint32_t kObjects = 20000;
    const uint64_t before = Tick();
    for (uint32_t oid = 0; oid < kObjects; ++oid)
    {
        ObjectClaim(oid, Tick()).NoteKnown();
    }
    const uint64_t after = Tick();
    for (uint32_t oid = 0; oid < kObjects; ++oid)
    {
        EXPECT_TRUE(ObjectClaim(oid, before).IsOvertaken()) << oid;
        EXPECT_FALSE(ObjectClaim(oid, after).IsOvertaken()) << oid;
    }
    // Nor by who knows less.
    ObjectClaim(0, before).NoteKnown();
    EXPECT_TRUE(ObjectClaim(0, before).IsOvertaken());
    // Only who fetches again refuses.
    ObjectClaim old(kOid, before);
    EXPECT_FALSE(old.RefusesObject());
    const FetchesAgain fetchesAgain;
    EXPECT_TRUE(old.RefusesObject());
    EXPECT_FALSE(old.LetOthersGoFirst());
}

TEST(ObjectOrder, AFetchIsAsOldAsItsAsking)
{
    int one = 0;
    int other = 0;
    const uint64_t asked = Tick();
    NoteFetch(&one, asked);
    EXPECT_EQ(AgeOf(&one), asked);
    EXPECT_GT(AgeOf(&other), asked) << "came otherwise";
    ForgetFetch(&other);
    EXPECT_EQ(AgeOf(&one), asked);
    ForgetFetch(&one);
    EXPECT_GT(AgeOf(&one), asked) << "the memory is another object's now";
}

// The record that was put behind the queue, "" without one.
std::string Queued()
{
    if (QdbEventQSize == 0)
    {
        return "";
    }
    const EventNodePtr node(QdbdeQueue(gQdbEventQueue));
    return std::to_string(node->data->evtType) + ' ' +
           std::to_string(RecordWord(*node->data, kFirstOidAt).value_or(0));
}

int Tell(uint16_t type, uint64_t taken = Tick())
{
    return ObjectNotification(EventOf(List(type, {kOid})), type, taken);
}

// A destroy whose worker has fallen asleep between taking the record and
// carrying it out, while another one created the object's successor.
TEST_F(Handler, ADestroyThatWasOvertakenHasTheObjectCreatedAgain)
{
    PutObject(kStatus, kOid);
    uint64_t taken = Tick();
    EXPECT_EQ(Tell(kCreate), 0);
    EXPECT_EQ(Tell(kDestroy, taken), 0);
    EXPECT_EQ(Queued(), "7 256");
    // The usual case, and that of a create which the old row kept out.
    EXPECT_EQ(Tell(kCreate), 0);
    taken = Tick();
    EXPECT_EQ(Tell(kDestroy), 0);
    EXPECT_EQ(Queued(), "");
    EXPECT_TRUE(ObjectClaim(kOid, taken).IsOvertaken()) << "it is gone";
    EXPECT_EQ(Tell(kCreate), 0);
    taken = Tick();
    EXPECT_EQ(Tell(kCreate), -1);
    EXPECT_EQ(Tell(kDestroy, taken), 0);
    EXPECT_EQ(Queued(), "7 256");
    EXPECT_EQ(mirror_.Rows("SELECT OID FROM TblDMStatus_Child_Obj"), Lines{});
}

std::atomic<bool> gPaused = false;

// It finds its OID mapped, and the destroy that is still to come needs the
// object that the create has in hand.
TEST_F(Handler, ACreateLetsTheDestroyOfTheOldRowGoFirst)
{
    constexpr uint16_t kWaitsForDeletes = 0x16;
    const Bytes object = MakeObject(kWaitsForDeletes, kOid);
    EXPECT_EQ(Create(object), 0);
    // A hundred of these are the create's patience.
    SetSleepFunction(
        [](unsigned /*microseconds*/)
        {
            gPaused = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        });
    std::thread remover(
        [&]
        {
            EXPECT_TRUE(WaitUntil(
                []
                {
                    return gPaused.load();
                }));
            EXPECT_EQ(Delete(object), 0);
        });
    EXPECT_EQ(Create(object), 0);
    remover.join();
    EXPECT_EQ(Kinds(), (Lines{"Added", "Removed", "Added"}));
}

// The Data Manager may answer nobody until its callback returns.
TEST_F(Handler, TheCallbackLeavesToTheQueueWhatOthersHaveInHand)
{
    for (const uint32_t oid : {kOid, kOid + 1})
    {
        EXPECT_EQ(Create(Status(oid, "p", 1)), 0);
    }
    {
        const ObjectClaim inHand(kOid, Tick());
        std::thread(
            []
            {
                const Bytes record = List(kDestroy, {kOid, kOid + 1});
                EXPECT_EQ(NotifyOnCallback(EventOf(record), kDestroy), 0);
            })
            .join();
    }
    EXPECT_EQ(mirror_.Rows("SELECT OID FROM TblDMStatus_Child_Obj"),
              Lines{"256"});
    EXPECT_EQ(Queued(), "8 256");
    EXPECT_EQ(Queued(), "");
}

} // namespace
} // namespace qdb::test

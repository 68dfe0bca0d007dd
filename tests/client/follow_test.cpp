// A consumer's copy stays right whatever happens to the bus, the service, the
// database and the consumer itself.
//
//   client_test --rounds N --seed S
#include "tests/client/monitor.h"
#include "tests/client/shadow.h"
#include "tests/support/private_bus.h"
#include "tests/support/service_process.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string_view>
#include <thread>

namespace qdb::test
{
namespace
{

int gRounds = 9;
unsigned gSeed = std::random_device()();

constexpr int kObjects = 40;             // of each type
constexpr size_t kDaemonHolds = 1 << 16; // bytes for a subscriber that stalls

class World
{
  public:
    World();

    void Round(int number);
    void Finish() const;

  private:
    struct Happening
    {
        const char *name;
        void (World::*happen)();
    };
    static const Happening kHappenings[];

    void Churn();
    void ComeAndGo();
    void Stall();
    void LetServiceSpeak();
    void KillService();
    void RestartService();
    void RestartBus();
    void HoldDatabase();
    void StartService();
    void Settle(const std::string &what);

    std::mt19937 engine_;
    PrivateBus bus_;
    ServiceProcess service_;
    Monitor monitor_;
    Shadow shadow_;
    uint32_t next_ = 700000; // OIDs of objects that come
    std::vector<uint32_t> come_;
    int stalls_ = 0;
    double slowest_ = 0; // seconds of a settling
};

World::World()
    : engine_(gSeed), bus_(kDaemonHolds),
      service_({.scenario = Server(kObjects),
                .logLevel = 6,
                .busAddress = bus_.Address()}),
      monitor_(bus_.Address()),
      shadow_(service_.Root().Database(), bus_.Address())
{
    StartService();
}

// The attribute of readiness outlives a service that was killed.
void World::StartService()
{
    service_.Start();
    EXPECT_TRUE(service_.WaitForLog("QDB is ready. Enable"));
}

void World::Churn()
{
    std::thread churn(
        [this]
        {
            service_.Command(R"({"op":"churn","count":2000})");
        });
    shadow_.Process(20);
    churn.join();
}

void World::ComeAndGo()
{
    constexpr int kEach = 20;
    for (int i = 0; i < kEach; ++i)
    {
        const std::string oid = std::to_string(++next_);
        come_.push_back(next_);
        service_.Command(R"({"op":"create","type":"0x17","oid":)" + oid + "}");
        service_.Command(R"({"op":"set","oid":)" + oid +
                         R"(,"values":{"probeReading":)" + std::to_string(i) +
                         "}}");
        if (engine_() % 2 == 0)
        {
            const size_t at = engine_() % come_.size();
            service_.Command(R"({"op":"delete","oid":)" +
                             std::to_string(come_[at]) + "}");
            come_.erase(come_.begin() + static_cast<ptrdiff_t>(at));
            shadow_.Process(0);
        }
    }
}

// More than daemon and socket hold for it, however many changes the service
// tells of in one. A loss shows at the next signal that gets through.
void World::Stall()
{
    int changes = 3000;
    Settle("before it stalls"); // so that nothing else explains the loss
    const int before = shadow_.Resyncs(QDB_LOST_SIGNALS);
    ++stalls_;
    int speed = 0;
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            service_.Command(R"({"op":"churn","count":)" +
                             std::to_string(changes) + "}");
            changes *= 2;
            service_.SetSpeed(++speed);
            EXPECT_TRUE(service_.WaitForSpeed(speed));
            shadow_.Process(20);
            return shadow_.Resyncs(QDB_LOST_SIGNALS) > before;
        }));
}

// A reader knows who serves it by that one's signals alone.
void World::LetServiceSpeak()
{
    const auto scans = [&]
    {
        int count = 0;
        for (int reason = 0; reason < Shadow::kReasons; ++reason)
        {
            count += shadow_.Resyncs(static_cast<qdb_reason>(reason));
        }
        return count;
    };
    int speed = 0;
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            const int scansBefore = scans();
            const size_t told = shadow_.Told();
            service_.SetSpeed(++speed);
            shadow_.Process(20);
            return shadow_.Told() > told && scans() == scansBefore;
        }));
}

void World::KillService()
{
    LetServiceSpeak();
    std::thread churn(
        [path = service_.Root().Path() + "/control"]
        {
            CommandAt(path, R"({"op":"churn","count":100000})");
        });
    shadow_.Process(5);
    service_.Signal(SIGKILL);
    service_.WaitExit();
    churn.join();
    come_.clear();
    if (engine_() % 2 == 0)
    {
        EXPECT_TRUE(WaitUntil(
            [&]
            {
                shadow_.Process(20);
                return !shadow_.IsReady();
            }));
    }
    service_.Root().MakeDatabase();
    StartService();
}

void World::RestartService()
{
    EXPECT_EQ(service_.Stop(), 0);
    come_.clear();
    shadow_.Process(0);
    service_.Root().MakeDatabase();
    StartService();
}

// The service doesn't come back to a bus that was gone.
void World::RestartBus()
{
    shadow_.Process(0);
    monitor_.Collect();
    bus_.Kill();
    service_.SetSpeed(17);
    shadow_.Process(20);
    monitor_.Forget();
    bus_.Restart();
    RestartService();
}

void World::HoldDatabase()
{
    sqlite3 *holder = nullptr;
    EXPECT_EQ(sqlite3_open(service_.Root().Database().c_str(), &holder),
              SQLITE_OK);
    constexpr int kTimes = 5;
    for (int i = 0; i < kTimes; ++i)
    {
        EXPECT_TRUE(WaitUntil(
            [&]
            {
                return sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr,
                                    nullptr) == SQLITE_OK;
            }));
        service_.SetSpeed(static_cast<int>(engine_() % 5000));
        shadow_.Process(10);
        shadow_.Process(10);
        sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr);
        shadow_.Process(10);
    }
    sqlite3_close(holder);
}

void World::Settle(const std::string &what)
{
    SCOPED_TRACE(what);
    // Behind all other events, so that the service has done with them.
    const int speed = static_cast<int>(engine_() % 100000);
    service_.SetSpeed(speed);
    EXPECT_TRUE(service_.WaitForSpeed(speed));
    slowest_ = std::max(slowest_, shadow_.Settle());
    monitor_.Judge(shadow_);
}

const World::Happening World::kHappenings[] = {
    {"churn", &World::Churn},
    {"objects that come and go", &World::ComeAndGo},
    {"a consumer that stalls", &World::Stall},
    {"a service that is killed", &World::KillService},
    {"a service that is started anew", &World::RestartService},
    {"a bus that is started anew", &World::RestartBus},
    {"a database that others hold", &World::HoldDatabase},
};

void World::Round(int number)
{
    // Each once before any again, and then at random.
    const size_t count = std::size(kHappenings);
    const auto at = static_cast<size_t>(number);
    const Happening &first = kHappenings[at < count ? at : engine_() % count];
    const Happening &second = kHappenings[engine_() % count];
    (this->*first.happen)();
    if (engine_() % 2 == 0)
    {
        (this->*second.happen)();
        return Settle(std::string(first.name) + ", then " + second.name);
    }
    Settle(first.name);
}

void World::Finish() const
{
    std::printf("%zu differences told, %zu changes known, %d stalls, %d new "
                "services, %d new databases, %d new buses, %d silent; settled "
                "in %.2f s at most\n",
                shadow_.Told(), shadow_.Known(), stalls_,
                shadow_.Resyncs(QDB_NEW_SERVICE),
                shadow_.Resyncs(QDB_NEW_DATABASE), shadow_.Resyncs(QDB_NEW_BUS),
                shadow_.Resyncs(QDB_SILENT_CHANGE), slowest_);
    std::printf("%zu signals dropped in %zu gaps, %d losses noticed\n",
                monitor_.Signals(), monitor_.Gaps(),
                shadow_.Resyncs(QDB_LOST_SIGNALS));
    EXPECT_GT(shadow_.Known(), 0U);
}

TEST(Follow, KeepsACopyRight)
{
    std::printf("--seed %u\n", gSeed);
    World world;
    for (int round = 0; round < gRounds && !testing::Test::HasFailure();
         ++round)
    {
        SCOPED_TRACE("round " + std::to_string(round));
        world.Round(round);
    }
    world.Finish();
}

} // namespace
} // namespace qdb::test

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i + 1 < argc; i += 2)
    {
        const std::string_view option = argv[i];
        if (option == "--rounds")
        {
            qdb::test::gRounds = std::atoi(argv[i + 1]);
        }
        if (option == "--seed")
        {
            qdb::test::gSeed =
                static_cast<unsigned>(std::strtoul(argv[i + 1], nullptr, 10));
        }
    }
    return RUN_ALL_TESTS();
}

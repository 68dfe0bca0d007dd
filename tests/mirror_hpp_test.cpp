// The C++ side of the client library, on the real service: what it gives out,
// and the ways of exceptions.

#include "client/quillondb/copy.hpp"
#include "db/statement_ptr.h"
#include "tests/support/private_bus.h"
#include "tests/support/service_process.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sqlite3.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <sstream>
#include <stdexcept>

namespace qdb::test
{
namespace
{

using quillondb::Change;
using quillondb::Difference;
using quillondb::Handlers;
using quillondb::Mirror;
using quillondb::Row;

class MirrorHpp : public testing::Test
{
  protected:
    void SetUp() override
    {
        service_.Start();
        ASSERT_TRUE(service_.WaitReady());
    }

    quillondb::Options Modules() const
    {
        return {.database = service_.Root().Database(),
                .tables = {"TblMemoryInfo"}};
    }

    // Processes until the condition is true.
    template <typename Condition>
    static bool ProcessUntil(Mirror &mirror, Condition condition)
    {
        return WaitUntil(
            [&]
            {
                pollfd entry = {mirror.Fd(), POLLIN, 0};
                poll(&entry, 1, 10);
                while (mirror.Process())
                {
                }
                return condition();
            });
    }

    const PrivateBus bus_;
    ServiceProcess service_{
        {.scenario = Server(3, "",
                            R"({"type":"0x304","oid":9000,)"
                            R"("values":{"deviceID":1}},)"
                            R"({"type":"0x221","oid":9001,"values":)"
                            R"({"ClockLimit":1,)"
                            R"("DRAMUsage":0.30000000000000004}},)")}};
};

TEST_F(MirrorHpp, TellsRowsChangesAndReadiness)
{
    std::ostringstream told;
    Handlers handlers;
    handlers.added = [&](const Row &row)
    {
        told << "added " << row.Table() << ' ' << row.Oid() << ' ' << row.Key()
             << '\n';
    };
    handlers.changed = [&](const Change &change)
    {
        told << "changed " << change.Oid() << ' ' << change["Speed"] << '\n';
    };
    handlers.removed = [&](const Row &row)
    {
        told << "removed " << row.Oid() << '\n';
    };
    handlers.ready = [&](bool isReady)
    {
        told << "ready " << isReady << '\n';
    };
    Mirror mirror(handlers, Modules());
    const auto tells = [&](const std::string &expected)
    {
        EXPECT_TRUE(ProcessUntil(mirror,
                                 [&]
                                 {
                                     return told.str().ends_with(expected);
                                 }))
            << told.str() << "instead of\n"
            << expected;
    };
    tells("added TblMemoryInfo 4096 DIMM0\nadded TblMemoryInfo 4097 DIMM1\n"
          "added TblMemoryInfo 4098 DIMM2\nready 1\n");
    service_.SetSpeed(2667);
    tells("changed 4096 2667\n");
    service_.Command(R"({"op":"delete","oids":[4097]})");
    tells("changed 4096 2667\nremoved 4097\n");
}

// Others hold the database while all tables are to be looked at: the call waits
// once, not for each of them, and what it missed is told later.
TEST_F(MirrorHpp, ACallWaitsForABusyDatabaseOnce)
{
    using Clock = std::chrono::steady_clock;
    quillondb::Options options = Modules();
    options.tables = {};
    options.busy = std::chrono::milliseconds(200);
    constexpr auto kFarLessThanForEach = std::chrono::seconds(5);
    constexpr auto kTicks = std::chrono::seconds(2);
    std::string told;
    Mirror mirror({.changed =
                       [&](const Change &change)
                   {
                       told += std::to_string(change.Oid()) + " ";
                   },
                   .resynced =
                       [&](const quillondb::Resync &resync)
                   {
                       told += std::to_string(resync.reason);
                   }},
                  options);
    EXPECT_TRUE(ProcessUntil(mirror,
                             [&]
                             {
                                 return mirror.State() == QDB_READY;
                             }));
    sqlite3 *opened = nullptr;
    sqlite3_open(service_.Root().Database().c_str(), &opened);
    const ConnectionPtr holder(opened);
    sqlite3_busy_timeout(opened, kDeadlineMs);
    EXPECT_EQ(sqlite3_exec(opened,
                           "UPDATE TblMemoryInfo SET SingleRecordEtag = 1, "
                           "Speed = 1 WHERE OID = 4097; BEGIN EXCLUSIVE",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    told.clear();
    const auto begin = Clock::now();
    Clock::duration longest = {};
    for (auto now = begin; now - begin < kTicks;)
    {
        mirror.Process();
        longest = std::max(longest, Clock::now() - now);
        now = Clock::now();
    }
    EXPECT_LT(longest, kFarLessThanForEach);
    EXPECT_EQ(told, "");
    sqlite3_exec(opened, "COMMIT", nullptr, nullptr, nullptr);
    EXPECT_TRUE(ProcessUntil(mirror,
                             [&]
                             {
                                 return told == "4097 5";
                             }))
        << told;
}

TEST_F(MirrorHpp, TellsWhichColumnsDifferAndOldValuesAsFarAsSignalsDo)
{
    const struct
    {
        const char *table;
        const char *command;
        const char *expected;
    } cases[] = {
        {"TblRAID_PhysicalDisk",
         R"({"op":"set","oid":9000,"values":{"deviceID":)", "1 deviceID 2 3"},
        // A signal tells of the real beside it in fewer digits than it has.
        {"TblGPUHealthObj", R"({"op":"set","oid":9001,"values":{"ClockLimit":)",
         "1 ClockLimit ? 3"},
    };
    for (const auto &item : cases)
    {
        std::string told;
        const auto tell = [&](const Change &change)
        {
            told += std::to_string(change.IsKnown());
            for (const Difference &difference : change.Differences())
            {
                const char *old =
                    difference.old == nullptr ? "?" : difference.old;
                told += std::string(" ") + difference.now.Name() + ' ' + old +
                        ' ' + std::string(difference.now.Text());
            }
        };
        Mirror mirror(
            {.changed = tell},
            {.database = service_.Root().Database(), .tables = {item.table}});
        EXPECT_TRUE(ProcessUntil(mirror,
                                 [&]
                                 {
                                     return mirror.State() == QDB_READY;
                                 }));
        // What was before the first is known or not, as it may be read
        // meanwhile.
        for (const std::string value : {"2", "3"})
        {
            told.clear();
            service_.Command(item.command + value + "}}");
            EXPECT_TRUE(ProcessUntil(mirror,
                                     [&]
                                     {
                                         return !told.empty();
                                     }));
        }
        EXPECT_EQ(told, item.expected) << item.table;
    }
}

TEST_F(MirrorHpp, ThrowsWhatACallbackThrowsAndTellsNothingMore)
{
    int rows = 0;
    const auto fail = [&](const Row &)
    {
        ++rows;
        throw std::runtime_error("enough");
    };
    Mirror running({.added = fail}, Modules());
    EXPECT_THROW(running.Run(), std::runtime_error);
    EXPECT_THROW(running.Run(), std::runtime_error);
    EXPECT_THROW(running.Process(), std::runtime_error);
    EXPECT_EQ(rows, 1);

    rows = 0;
    Mirror polled({.added = fail}, Modules());
    EXPECT_THROW(ProcessUntil(polled,
                              []
                              {
                                  return false;
                              }),
                 std::runtime_error);
    EXPECT_EQ(rows, 1);

    // What isn't told can still be read.
    EXPECT_EQ(running.Each("TblMemoryInfo", [](const Row &) {}), 3u);
    EXPECT_THROW(running.Each("TblMemoryInfo", fail), std::runtime_error);
    EXPECT_EQ(rows, 2);
}

TEST_F(MirrorHpp, StopsWhereItIsAskedTo)
{
    Mirror *stopped = nullptr;
    int rows = 0;
    Mirror mirror({.added =
                       [&](const Row &)
                   {
                       ++rows;
                       stopped->Stop();
                   }},
                  Modules());
    stopped = &mirror;
    mirror.Run();
    EXPECT_EQ(rows, 3);
    // It has moved, and its callbacks still find what they belong to.
    Mirror moved = std::move(mirror);
    stopped = &moved;
    service_.Command(R"({"op":"create","type":"0xE1","oid":5000,)"
                     R"("parents":[1],"values":{"Key":"More"}})");
    moved.Run();
    EXPECT_EQ(rows, 4);
}

// The error that a call ends with; 0: none.
int ErrorOf(const std::function<void()> &call)
{
    try
    {
        call();
        return 0;
    }
    catch (const std::system_error &error)
    {
        return error.code().value();
    }
}

TEST_F(MirrorHpp, ReadsAndSaysWhyNot)
{
    Mirror mirror({}, Modules());
    std::string keys;
    const auto take = [&](const Row &row)
    {
        keys += std::string(row.Key()) + ' ';
        EXPECT_FALSE(row["Speed"].IsNull());
        EXPECT_THROW(row["Sped"], std::out_of_range);
    };
    EXPECT_EQ(mirror.Get("TblMemoryInfo", 4097, take), 1u);
    EXPECT_EQ(mirror.Get("TblMemoryInfo", 1, take), 0u);
    EXPECT_EQ(mirror.GetByKey("TblMemoryInfo", "DIMM2", take), 1u);
    EXPECT_EQ(mirror.Each("TblMemoryInfo", take), 3u);
    EXPECT_EQ(keys, "DIMM1 DIMM2 DIMM0 DIMM1 DIMM2 ");
    EXPECT_EQ(std::ranges::count(mirror.Tables(), "TblMemoryInfo"), 1);
    EXPECT_EQ(mirror.Count("TblMemoryInfo"), 3u);
    std::string columns;
    for (const quillondb::Column &column : mirror.Columns("TblMemoryInfo"))
    {
        columns += column.name + ' ' + column.type + ", ";
    }
    EXPECT_NE(columns.find("OID INTEGER, "), std::string::npos) << columns;
    EXPECT_NE(columns.find("Speed INTEGER, "), std::string::npos) << columns;
    EXPECT_EQ(
        mirror.Select("SELECT Key, OID FROM TblMemoryInfo WHERE OID > 4096",
                      [&](const Row &row)
                      {
                          keys = std::string(row["Key"].Text());
                          EXPECT_EQ(row[1].Integer(), row.Oid());
                      }),
        2u);
    EXPECT_EQ(keys, "DIMM2");

    Mirror nowhere({}, {.database = "/nonexistent"});
    const struct
    {
        int error;
        std::function<void()> call;
    } cases[] = {
        // clang-format off
        {ENOENT, [&] { mirror.Each("TblNone", take); }},
        {ENOENT, [&] { mirror.Get("TblNone", 1, take); }},
        {ENOENT, [&] { mirror.GetByKey("TblNone", "x", take); }},
        {ENOENT, [&] { mirror.Count("TblNone"); }},
        {ENOENT, [&] { mirror.Columns("TblNone"); }},
        {ENODATA, [&] { nowhere.Each("TblMemoryInfo", take); }},
        {ENODATA, [&] { nowhere.Tables(); }},
        {ENODATA, [&] { nowhere.Select("SELECT 1", take); }},
        {EINVAL, [&] { mirror.Select("SELECT Sped FROM TblMemoryInfo", take); }},
        {EPERM, [&] { mirror.Select("DELETE FROM TblMemoryInfo", take); }},
        // clang-format on
    };
    for (const auto &item : cases)
    {
        EXPECT_EQ(ErrorOf(item.call), item.error);
    }
}

TEST_F(MirrorHpp, SaysWhatItWaitsFor)
{
    const std::string database = service_.Root().Database();
    const auto reaches = [](Mirror &mirror, qdb_state expected)
    {
        return ProcessUntil(mirror,
                            [&]
                            {
                                return mirror.State() == expected;
                            });
    };
    Mirror nowhere({}, {.database = "/nonexistent"});
    EXPECT_EQ(nowhere.State(), QDB_NO_BUS);
    EXPECT_TRUE(reaches(nowhere, QDB_NO_DATABASE));
    Mirror mirror({}, {.database = database});
    EXPECT_TRUE(reaches(mirror, QDB_READY));
    sqlite3 *holder = nullptr;
    sqlite3_open(database.c_str(), &holder);
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            return sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr,
                                nullptr) == SQLITE_OK;
        }));
    Mirror late({},
                {.database = database, .busy = std::chrono::milliseconds(1)});
    EXPECT_TRUE(reaches(late, QDB_BUSY));
    sqlite3_close(holder);
    EXPECT_TRUE(reaches(late, QDB_READY));
    // Only who has spoken can be known to be gone.
    service_.SetSpeed(2667);
    EXPECT_TRUE(service_.WaitForSpeed(2667));
    service_.Signal(SIGKILL);
    service_.WaitExit();
    EXPECT_TRUE(reaches(mirror, QDB_NO_SERVICE));
    service_.Root().MakeDatabase();
    EXPECT_TRUE(reaches(nowhere, QDB_NO_DATABASE));
    Mirror empty({}, {.database = database});
    EXPECT_TRUE(reaches(empty, QDB_FILLING));
}

TEST_F(MirrorHpp, KeepsACopy)
{
    quillondb::Copy copy("TblMemoryInfo", service_.Root().Database());
    EXPECT_TRUE(copy.Wait());
    EXPECT_EQ(copy.Rows().size(), 3u);
    EXPECT_EQ(copy.Rows().at(4097)["Key"], "DIMM1");
    EXPECT_THROW(copy.Rows().at(4097)["Sped"], std::out_of_range);
    service_.SetSpeed(2667);
    while (copy.Rows().at(4096)["Speed"] != "2667")
    {
        ASSERT_TRUE(copy.Wait());
    }
    service_.Command(R"({"op":"delete","oids":[4097]})");
    while (copy.Rows().contains(4097))
    {
        ASSERT_TRUE(copy.Wait());
    }
    copy.Stop();
    EXPECT_FALSE(copy.Wait());
    EXPECT_EQ(copy.Rows().size(), 2u);
}

} // namespace
} // namespace qdb::test

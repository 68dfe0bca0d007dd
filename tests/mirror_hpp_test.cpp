// The C++ side of the client library, on the real service: what it gives out,
// and the ways of exceptions.

#include "client/quillondb/client.hpp"
#include "tests/support/private_bus.h"
#include "tests/support/service_process.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
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
                            R"("values":{"deviceID":1}},)")}};
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

// Of a table whose signals give them.
TEST_F(MirrorHpp, GivesOldValues)
{
    std::string told;
    const auto tell = [&](const Change &change)
    {
        told += std::to_string(change.IsKnown());
        for (const Difference &difference : change.Differences())
        {
            const char *old = difference.old == nullptr ? "?" : difference.old;
            told += std::string(" ") + difference.now.Name() + ' ' + old + ' ' +
                    std::string(difference.now.Text());
        }
    };
    bool isReady = false;
    Mirror mirror({.changed = tell,
                   .ready =
                       [&](bool isNow)
                   {
                       isReady = isNow;
                   }},
                  {.database = service_.Root().Database(),
                   .tables = {"TblRAID_PhysicalDisk"}});
    EXPECT_TRUE(ProcessUntil(mirror,
                             [&]
                             {
                                 return isReady;
                             }));
    // What was before the first is known or not, as it may be read meanwhile.
    for (const std::string value : {"2", "3"})
    {
        told.clear();
        service_.Command(R"({"op":"set","oid":9000,"values":{"deviceID":)" +
                         value + "}}");
        EXPECT_TRUE(ProcessUntil(mirror,
                                 [&]
                                 {
                                     return !told.empty();
                                 }));
    }
    EXPECT_EQ(told, "1 deviceID 2 3");
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
        {ENODATA, [&] { nowhere.Each("TblMemoryInfo", take); }},
        {ENODATA, [&] { nowhere.Tables(); }},
        // clang-format on
    };
    for (const auto &item : cases)
    {
        EXPECT_EQ(ErrorOf(item.call), item.error);
    }
}

} // namespace
} // namespace qdb::test

// A detach: the mirror is emptied at once, telemetry is told, and what doesn't
// come with events comes back, as far as it can be had.

#include "core/state.h"
#include "publish/telemetry.h"
#include "tests/support/change_listener.h"
#include "tests/support/db_fixture.h"
#include "tests/support/wait.h"

#include <malloc.h>

#include <cstdio>
#include <span>

namespace qdb::test
{
namespace
{

const std::string kCompleted =
    "DM DETACHED!! Reload Config Objects - Completed!\n";
const Lines kRoots = {"TbllmRootDataObj|1|18", "TbllmRootDataObj|2|18"};
const Lines kAll = kRoots + Lines{"TblIntAttribute|1|18"};

// The telemetry records of a detach, and those of the rows that come back.
Lines DetachRecords(const Lines &rows)
{
    Lines records;
    for (const char *table : TelemetryDetachTableList)
    {
        records.push_back(std::string(table) + "|0|9");
    }
    return records + rows;
}

class Detach : public ::testing::Test
{
  protected:
    Detach()
        : mirror_({.threads = true, .pipe = true}), pipe_(mirror_.Root().Pipe())
    {
        standin::PutAttribute("CfgIntAttribute", "A.1#B.1#C", nullptr);
        PutObject(0x900, 0x90);
        PutObject(0x900, 0x91);
    }
    ~Detach() override
    {
        ClearSqliteFaults();
        RestoreSleeps();
    }

    // Sends the event and waits for the reload's last line; then only `back`
    // has come back.
    void Run(const std::string &lastLine = kCompleted, const Lines &back = kAll)
    {
        pipe_.Take();
        CaptureLog();
        standin::Detach();
        EXPECT_TRUE(standin::WaitDelivered(kDeadlineMs));
        EXPECT_EQ(gDMDetachClearing, 0);
        WaitForLog(lastLine);
        EXPECT_EQ(pipe_.Take(), DetachRecords(back));
    }

    std::string Mapped()
    {
        return mirror_.Value("SELECT count(*) FROM ActiveOIDMapping");
    }

    Mirror mirror_;
    PipeReader pipe_;
};

TEST_F(Detach, BringsBackWhatCanBeHad)
{
    PutObject(0x1001, 0x50);
    standin::SendObjectList(7, std::vector<uint32_t>{0x50, 0x90});
    mirror_.Settle();
    EXPECT_EQ(Mapped(), "2");
    Restart();
    ChangeListener changes;
    const std::string failed = "DM DETACHED!! Reload Config Objects - failed "
                               "status:";
    standin::SetFault("client_get_objects", 5, 1);
    Run("Objects not found: CfgGroup 1\n", kRoots);
    EXPECT_EQ(Mapped(), "2");
    // One interface without a list, and one list of root objects.
    standin::SetFault("client_get_objects", 5, 1, 1);
    standin::SetFault("ZOILListChildOIDByType", 0, 1);
    Run(failed + "256!\n", {});
    EXPECT_EQ(Mapped(), "0");
    Run();
    // The tables can't be cleared: telemetry is told so all the same.
    FailSteps("delete from ActiveOIDMapping", SQLITE_ERROR, 1);
    Run(failed + "-1!\n", {});
    EXPECT_EQ(Mapped(), "3");
    // Rows that come back are announced, and rows that go aren't.
    size_t added = 0;
    for (const Change &change : changes.TakeAll())
    {
        EXPECT_EQ(change.member, "Vexo_qdb_Resource_Added");
        ++added;
    }
    EXPECT_EQ(added, 2U + 3U);
}

// Bytes in use.
size_t HeapInUse()
{
    const struct mallinfo2 heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}

TEST_F(Detach, GivesBackWhatThousandsOfObjectsTook)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's heap doesn't tell what is in use";
#endif
    constexpr uint16_t kTypes[] = {0x15, 0x16, 0x40, 0x41, 0xE1, 0x304, 0x1200};
    constexpr uint32_t kObjects = 5000;
    std::vector<uint32_t> oids;
    for (uint32_t i = 0; i < kObjects; ++i)
    {
        oids.push_back(PutObject(kTypes[i % std::size(kTypes)], 0x10000 + i));
    }
    size_t heap[2] = {};
    for (size_t &inUse : heap)
    {
        Run();
        // An event takes 4,000.
        const std::span all(oids);
        standin::SendObjectList(7, all.first(kObjects / 2));
        standin::SendObjectList(7, all.last(kObjects / 2));
        mirror_.Settle();
        EXPECT_EQ(Mapped(), std::to_string(kObjects + 3));
        Run();
        EXPECT_EQ(Mapped(), "3");
        Restart(0); // forgets the test's own records
        inUse = HeapInUse();
    }
    std::printf("heap behind the first and the second detach: %zu, %zu bytes\n",
                heap[0], heap[1]);
    constexpr size_t kBytesPerObject = 10;
    EXPECT_LT(heap[1], heap[0] + kBytesPerObject * kObjects);
}

} // namespace
} // namespace qdb::test

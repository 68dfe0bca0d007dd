// The telemetry records, on a real named pipe.
#include "core/state.h"
#include "publish/telemetry.h"
#include "tests/support/change_listener.h"
#include "tests/support/log_capture.h"
#include "tests/support/mirror.h"

#include <fcntl.h>
#include <unistd.h>

#include <optional>

namespace qdb::test
{
namespace
{

using Lines = std::vector<std::string>;

struct PipeTest : ::testing::Test
{
    PipeTest() : mirror_({.pipe = true})
    {
        CaptureLog();
    }

    Mirror mirror_;
};

TEST_F(PipeTest, SomeChangesHaveARecord)
{
    const Lines kRefused = {"One or some of the input parameters are "
                            "incorrect. Exiting\n"};
    // clang-format off
    const struct
    {
        const char *database;
        const char *table;
        long long rowid;
        int operation;
        uint8_t clearing;
        Lines records;
        Lines lines; // up to level 2
    } kCases[] = {
        {"main", "TblProbeObj", 17, 23, 0, {"TblProbeObj|17|23"}, {}},
        {"other", "T", 9223372036854775807, 9, 0, {"T|9223372036854775807|9"}, {}},
        {"main", "TblProbeObj", 0, 18, 0, {}, kRefused},
        {"main", nullptr, 1, 18, 0, {}, kRefused},
        {nullptr, "TblProbeObj", 1, 18, 0, {}, kRefused},
        {"main", "TblProbeObj", 0, 9, 1, {}, kRefused},
        {"main", "TblProbeObj", 1, 9, 1, {}, {}},
        {"main", "TblProbeObj", 1, 18, 1, {"TblProbeObj|1|18"}, {}},
        {"main", "TblEtagHistory", 1, 23, 0, {}, {}},
        {"main", "TblEta", 1, 23, 0, {"TblEta|1|23"}, {}},
        {"main", "MyTblEtag", 1, 23, 0, {"MyTblEtag|1|23"}, {}},
        {"main", "ActiveOIDMapping", 1, 18, 0, {}, {}},
        {"main", "ParentChildMapping", 1, 18, 0, {}, {}},
        {"main", "TblParentChildMapping", 1, 18, 0, {"TblParentChildMapping|1|18"}, {}},
        {"main", "TblARR_TblX", 1, 18, 0, {}, {}},
        {"main", "TblARR_X", 1, 18, 0, {"TblARR_X|1|18"}, {}},
    };
    // clang-format on
    PipeReader reader(mirror_.Root().Pipe());
    for (const auto &c : kCases)
    {
        SCOPED_TRACE(std::string(c.table == nullptr ? "NULL" : c.table) + " " +
                     std::to_string(c.operation));
        CaptureLog(2);
        gDMDetachClearing = c.clearing;
        TelemetryUpdateHook(nullptr, c.operation, c.database, c.table, c.rowid);
        EXPECT_EQ(reader.Take(), c.records);
        EXPECT_EQ(LogLines(), c.lines);
    }
}

TEST_F(PipeTest, RecordsAreBytesWithoutEnd)
{
    PipeReader reader(mirror_.Root().Pipe());
    FormatTelemetryLine(23, "TblProbeObj", 17);
    PublishTableGone("TblProbeObj");
    EXPECT_EQ(reader.TakeBytes(),
              "||DMLiveObjectDatabase.db|TblProbeObj|17|23||"
              "||DMLiveObjectDatabase.db|TblProbeObj|0|9||");

    // A table name of any length; the record is cut.
    const std::string longName(5000, 'x');
    FormatTelemetryLine(23, longName.c_str(), 17);
    const std::string cut = reader.TakeBytes();
    EXPECT_EQ(cut, "||DMLiveObjectDatabase.db|" +
                       longName.substr(0, cut.size() - 26));
    EXPECT_EQ(cut.size(), 4095U);
}

void Publish(const char *table)
{
    FormatTelemetryLine(18, table, 1);
}

// The lines of the pipe itself, for what happened since CaptureLog.
Lines PipeLines()
{
    return LinesWith({"ipe "});
}

// Every record without a reader is lost and tries again.
TEST_F(PipeTest, ThePipeFollowsItsReader)
{
    const std::string path = mirror_.Root().Pipe();
    const std::string kFailed = "Write to pipe failed\n";
    const std::string kOpen = "QDB-TDB pipe open failed with error: ";
    const Lines kNoFile = {kOpen + "2, No such file or directory \n", kFailed};
    const Lines kNoReader = {kOpen + "6, No such device or address \n",
                             kFailed};
    const Lines kOpened = {
        "Telemetry Service write pipe opened successfully\n"};
    const Lines kBroken = {
        "Write to pipe failed with error: 32, Broken pipe \n", kFailed,
        "On error(32) pipe closed successfully\n"};
    std::optional<PipeReader> reader;
    const auto check = [&](const char *name, const Lines &lines)
    {
        SCOPED_TRACE(name);
        CaptureLog();
        Publish("T");
        EXPECT_EQ(PipeLines(), lines);
        EXPECT_EQ(gTelemetryPipeFd >= 0, reader.has_value());
        EXPECT_EQ(reader ? reader->Take() : Lines{},
                  Lines(reader ? 1 : 0, "T|1|18"));
    };
    unlink(path.c_str());
    check("no file", kNoFile);
    check("still none", kNoFile);
    mirror_.Root().MakePipe();
    check("no reader", kNoReader);
    reader.emplace(path);
    check("a reader", kOpened);
    check("the same", {});
    reader.reset();
    check("it has gone", kBroken);
    check("still gone", kNoReader);
    reader.emplace(path);
    check("its successor", kOpened);
}

TEST_F(PipeTest, AFullPipeDropsRecordsAndStaysOpen)
{
    PipeReader reader(mirror_.Root().Pipe());
    reader.Limit(4096);
    CaptureLog();
    size_t written = 0;
    while (CountLog("Write to pipe failed\n") == 0 && written < 4096)
    {
        CaptureLog();
        Publish("TblProbeObj");
        ++written;
    }
    const std::string kFull = "Write to pipe failed with error: 11, Resource "
                              "temporarily unavailable \n";
    EXPECT_EQ(PipeLines(),
              (Lines{kFull, kFull, kFull, kFull, "Write to pipe failed\n"}));
    EXPECT_GE(gTelemetryPipeFd, 0);

    const std::string kRecord = "||DMLiveObjectDatabase.db|TblProbeObj|1|18||";
    std::string expected;
    while (--written > 0)
    {
        expected += kRecord;
    }
    EXPECT_EQ(reader.TakeBytes(), expected);
    CaptureLog();
    Publish("TblProbeObj");
    EXPECT_EQ(PipeLines(), Lines());
    EXPECT_EQ(reader.TakeBytes(), kRecord);
}

TEST_F(PipeTest, AnotherErrorLeavesThePipeAsItIs)
{
    // A descriptor that can't be written to.
    gTelemetryPipeFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    Publish("TblProbeObj");
    EXPECT_EQ(PipeLines(),
              (Lines{"Write to pipe failed with error: 9, Bad file "
                     "descriptor \n",
                     "Write to pipe failed\n"}));
    EXPECT_GE(gTelemetryPipeFd, 0);
}

} // namespace
} // namespace qdb::test

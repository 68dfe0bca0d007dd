// Raw data files as attribute values: rows, signals, telemetry records and the
// lines of failures of each kind of file. Faults of the database are recorded
// in the stream.

#include "config/raw_data.h"
#include "config/raw_file.h"
#include "core/paths.h"
#include "tests/support/event_records.h"
#include "tests/support/handler_fixture.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

namespace qdb::test
{
namespace
{

namespace fs = std::filesystem;

constexpr char kPlain[] = "Certs.1#Plain";
constexpr char kMarked[] = "Apps.1#myapprawdata1";

// clang-format off
const std::string kMissing = "RefreshObj_4052_RawData: file does not present\n";
const std::string kNoBytes = "RefreshObj_4052_RawData: file present with size 0\n";
const std::string kUnreadable = "RefreshObj_4052_RawData: file present with valid size but file read fails\n";
const std::string kNoRow = "[4052] NO row selected from TblStrAttribute Table.";
const std::string kNoBind = "[4052]Bind failed for AppRaw Error: 18";
const std::string kUnread = "[4052] Failed to select Json Obj. Error: ";

// clang-format on

std::string Repeat(const std::string &text, size_t times)
{
    std::string all;
    while (times-- > 0)
    {
        all += text;
    }
    return all;
}

int Import(const std::string &key, const std::string &path)
{
    const auto pathAt = static_cast<uint32_t>(24 + key.size() + 1);
    const Bytes record = Record(1130, {24, pathAt}, key + '\0' + path + '\0');
    return ObjectNotificationRawData(EventOf(record), 1130);
}

class RawData : public Handler
{
  protected:
    RawData()
    {
        mirror_.Root().MakePipe();
        pipe_.emplace(mirror_.Root().Pipe());
        fs::create_directories(Directory());
        for (const std::string key : {kPlain, kMarked})
        {
            EXPECT_EQ(Create(MakeObject(0x4052, key == kPlain ? 256 : 257,
                                        R"({"Key": ")" + key + "\"}")),
                      0);
        }
        Restore();
    }

    std::string Directory() const
    {
        return mirror_.Root().Path() + "/mnt/persistent_data/data0/gen_certs/";
    }

    // Puts the rows back, as another process would, and forgets what they told.
    void Restore()
    {
        mirror_.Rows("UPDATE TblStrAttribute SET CurrentValue = 'old', "
                     "isRawData = 0, SingleRecordEtag = '1'");
        Announced();
        pipe_->Take();
        Restart(3);
    }

    std::string Write(const std::string &name, const std::string &content) const
    {
        const std::string path = Directory() + name;
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }

    Lines Row(const std::string &key) const
    {
        return mirror_.Rows("SELECT quote(CurrentValue), isRawData, "
                            "SingleRecordEtag != '1' FROM TblStrAttribute "
                            "WHERE Key = '" +
                            key + "' COLLATE NOCASE");
    }

    // Imports by an event. A row that is written is told on the pipe.
    void Check(const std::string &key, const std::string &path,
               const Lines &row, bool announced, const Lines &lines)
    {
        EXPECT_EQ(Import(key, path), 0);
        EXPECT_EQ(LogLines(), lines);
        EXPECT_EQ(Row(key), row);
        const bool written = row != Lines{} && row != Lines{"'old'|0|0"};
        EXPECT_EQ(pipe_->Take(),
                  written
                      ? Lines{"TblStrAttribute|" +
                              std::string(key == kMarked ? "2" : "1") + "|23"}
                      : Lines{});
        EXPECT_EQ(Kinds(), Lines(announced ? 1 : 0, "Changed"));
    }

    std::optional<PipeReader> pipe_;
};

TEST_F(RawData, TakesWhatAFileHolds)
{
    const std::string a48(48, 'A');
    const std::string line(Repeat("QUFB", 16));
    const std::string text = Write("text", "a\nb");
    const std::string link = Directory() + "link";
    const std::string loop = Directory() + "loop";
    const std::string fifo = Directory() + "fifo";
    fs::create_symlink("text", link);
    fs::create_symlink("loop", loop);
    fs::create_directories(Directory() + "folder/more");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string huge = Write("huge", "x");
    fs::resize_file(huge, 2147483647);
    const std::string wider = Write("wider", "x");
    fs::resize_file(wider, 0x100000005);
    using namespace std::string_literals;
    // clang-format off
    const struct
    {
        const char *name;
        const char *key;
        std::string path;
        std::string value; // as SQL has it
        Lines lines;
    } cases[] = {
        {"text", kPlain, text, "'a\nb'", {}},
        {"link", kPlain, link, "'a\nb'", {}},
        {"zeros inside", kPlain, Write("zeros", "ab\0cd"s), "'ab'", {}},
        {"zero at first", kPlain, Write("zero", "\0ab"s), "NULL", {}},
        {"encoded", kMarked, Write("encoded", a48 + "AA"), "'" + line + "\nQUE='", {}},
        {"one encoded line", kMarked, Write("line", a48), "'" + line + "'", {}},
        {"encoded zeros", kMarked, Write("nul", "\0\0"s), "'AAA='", {}},
        {"empty", kPlain, Write("empty", ""), "NULL", {kNoBytes}},
        {"missing", kPlain, Directory() + "none", "NULL", {kMissing}},
        {"no path", kPlain, "", "NULL", {kMissing}},
        {"below a file", kPlain, text + "/x", "NULL", {kMissing}},
        {"link to itself", kPlain, loop, "NULL", {kMissing}},
        {"pipe", kPlain, fifo, "NULL", {kNoBytes}},
        {"device", kPlain, "/dev/zero", "NULL", {kNoBytes}},
        {"huge", kPlain, huge, "NULL", {kUnreadable}},
        {"huge, beyond 32 bits", kMarked, wider, "NULL", {kUnreadable}},
        {"folder", kPlain, Directory() + "folder", "NULL", {kUnreadable}},
    };
    // clang-format on
    for (const auto &test : cases)
    {
        SCOPED_TRACE(test.name);
        Restore();
        Check(test.key, test.path, {test.value + "|1|1"}, true, test.lines);
    }
}

TEST_F(RawData, SurvivesLimitsAndAMissingDatabase)
{
    const std::string path = Write("longer", std::string(3000, 'x'));
    const int length = sqlite3_limit(QDVdbHandle, SQLITE_LIMIT_LENGTH, 2000);
    Check(kPlain, path, {"NULL|1|1"}, true, {kNoBind});
    Restore();
    Check(std::string(3000, 'k'), path, {}, false,
          {"Bind failed Error: 18", kNoRow, kNoBind, kNoBind,
           "Bind failed Error: 18", kNoRow, kUnread + "101"});
    sqlite3_limit(QDVdbHandle, SQLITE_LIMIT_LENGTH, length);
    Restore();
    sqlite3 *handle = QDVdbHandle.exchange(nullptr);
    Check(kPlain, path, {"'old'|0|0"}, false, {});
    QDVdbHandle = handle;
}

// The tag stands still when two imports meet in one second.
TEST_F(RawData, AnnouncesEvenNoChange)
{
    const std::string path = Write("text", "new");
    mirror_.Rows("CREATE TRIGGER still AFTER UPDATE ON TblStrAttribute BEGIN "
                 "UPDATE TblStrAttribute SET SingleRecordEtag = '1'; END");
    EXPECT_EQ(Import(kPlain, path), 0);
    Announced();
    EXPECT_EQ(Import(kPlain, path), 0);
    const Lines lines = Announced();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].ends_with(R"("PropertiesChanged": {}})")) << lines[0];
}

TEST_F(RawData, TakesTenMegabytes)
{
    constexpr size_t kGroups = 10 * 1024 * 1024 / 3;
    const std::string path = Write("large", Repeat("AAA", kGroups) + "A");
    const std::string encoded =
        Repeat(Repeat("QUFB", 16) + "\n", kGroups / 16) +
        Repeat("QUFB", kGroups % 16) + "QQ==";
    EXPECT_EQ(Import(kMarked, path), 0);
    EXPECT_TRUE(mirror_.Value("SELECT CurrentValue FROM TblStrAttribute WHERE "
                              "isRawData = 1") == encoded);
    // The bus takes its time for a signal of this size.
    std::vector<Change> changes;
    for (int wait = 0; changes.empty() && wait < 6; ++wait)
    {
        changes = listener_.WaitFor(1);
    }
    ASSERT_EQ(changes.size(), 1U);
    EXPECT_GT(changes[0].json.size(), 2 * encoded.size());
}

// What the path named when it was looked at may be another thing by now.
TEST_F(RawData, ReadsOnlyWholeFiles)
{
    const std::string fifo = Directory() + "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string missing = Directory() + "none";
    // Claims a page, and has less.
    const std::string shorter = "/sys/devices/system/cpu/online";
    const std::string noSize = "Error: source file filesize is less than or "
                               "equal to zero\n";
    const std::pair<std::string, std::string> kCases[] = {
        {missing, "Error: Opening file " + missing + " in read Mode\n"},
        {fifo, noSize},
        {Write("empty", ""), noSize},
        {shorter, "Error: Can not read file " + shorter + " in read Mode\n"},
    };
    for (const auto &[path, line] : kCases)
    {
        SCOPED_TRACE(path);
        Restart();
        char untouched = 0;
        char *buffer = &untouched;
        EXPECT_EQ(readFile(path.c_str(), &buffer, true), 1);
        EXPECT_EQ(buffer, &untouched);
        EXPECT_EQ(LogLines().back(), line);
    }
}

// The refresh's mutex spans the database part, and the file is read before.
TEST_F(RawData, HoldsTheRefreshMutex)
{
    const std::string path = Write("text", "new");
    const auto isFree = [](pthread_mutex_t &mutex)
    {
        const bool taken = pthread_mutex_trylock(&mutex) == 0;
        if (taken)
        {
            pthread_mutex_unlock(&mutex);
        }
        return taken;
    };
    pthread_mutex_t &refresh = StateOf(*FindRow(0x4052)).RefreshObjMutex;
    for (const auto &[line, expected] : {std::pair("Raw File Buffer", true),
                                         {"Select query output", false},
                                         {"buffer ={", false},
                                         {"$-$-$", true}})
    {
        SCOPED_TRACE(line);
        const LineHook hook(line,
                            [&, isFreeThen = expected](int)
                            {
                                EXPECT_EQ(isFree(refresh), isFreeThen);
                                EXPECT_TRUE(isFree(SqliteStepMutex));
                            });
        EXPECT_EQ(Import(kPlain, path), 0);
        EXPECT_GE(hook.Count(), 1);
    }
}

TEST_F(RawData, StartsWithTheDirectory)
{
    // A path that is cut names nothing.
    const std::string deep =
        mirror_.Root().Path() + Repeat("/" + std::string(200, 'd'), 2);
    const std::string folder = deep + "/mnt/persistent_data/data0/gen_certs/";
    const std::string name(100, 'n');
    fs::create_directories(folder);
    std::ofstream(folder + name) << "new";
    gRuntimeRoot = deep.c_str();
    OnLoadRawObjectsUpdate();
    EXPECT_EQ(CountLog(kMissing), 1);
    gRuntimeRoot = mirror_.Root().Path().c_str();

    // The readiness that announces comes later.
    Write(".hidden", "new");
    Write("empty", "");
    Write("certs.1#PLAIN", "new");
    Write(kMarked, "AA");
    Restart();
    DbusEventsEnabled = 0;
    OnLoadRawObjectsUpdate();
    DbusEventsEnabled = 1;
    EXPECT_EQ(Row(kPlain), Lines{"'new'|1|1"});
    EXPECT_EQ(Row(kMarked), Lines{"'QUE='|1|1"});
    EXPECT_EQ(CountLog(" filename = "), 3);
    EXPECT_EQ(CountLog("RefreshObj_4052_RawData: filepath has no data, "
                       "notification not processed\n"),
              1);
    EXPECT_EQ(pipe_->Take().size(), 2U);
    EXPECT_EQ(Announced(), Lines{});
}

} // namespace
} // namespace qdb::test

// Raw data files as attribute values: rows, signals, telemetry records and log
// lines of each kind of file, record and database fault.

#include "config/raw_data.h"
#include "config/raw_file.h"
#include "core/json.h"
#include "core/paths.h"
#include "events/queues/event_queue.h"
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
const std::string kSelect = "SELECT json_object('accessType'";
const std::string kUpdate = "UPDATE TblStrAttribute SET 'SingleRecordEtag'";

// clang-format off
const std::string kNotification = "ObjectNotificationRawData: Entry\n";
const std::string kEntry = "RefreshObj_4052_RawData: Entry\n";
const std::string kPresent = "RefreshObj_4052_RawData: file present\n";
const std::string kMissing = "RefreshObj_4052_RawData: file does not present\n";
const std::string kNoBytes = "RefreshObj_4052_RawData: file present with size 0\n";
const std::string kUnreadable = "RefreshObj_4052_RawData: file present with valid size but file read fails\n";
const std::string kBuffer = "RefreshObj_4052_RawData: Raw File Buffer read ";
const std::string kReadFile = "readFile: Entry\n";
const std::string kNoRow = "[4052] NO row selected from TblStrAttribute Table.";
const std::string kNoPrepare = "[4052]sqlite3_prepare_v2 Error: ";
const std::string kNoBind = "[4052]Bind failed for AppRaw Error: ";
const std::string kNotWritten = "[4052]Entry for AppRaw could not updated in TblStrAttribute Table. Error: ";
const std::string kUnread = "[4052] Failed to select Json Obj. Error: ";
const Lines kDone = {"[4052]Statement Executed!", "[4052]SQL Bindings Cleared"};

std::string End(int status)
{
    return "[4052]" + std::to_string(status) + " $-$-$-$-$-$-$-$-$-$-$-$-$-$-$-$-$-$-$-$-$-$-$-$-";
}

// The attribute's row as the signals show it; the value is JSON.
std::string RawRow(const std::string &key, const std::string &value, int raw,
                   const std::string &tag)
{
    return R"({"accessType": 0, "attributeFlags": 0, "CurrentValue": )" + value +
           R"(, "DefaultValue": null, "DependencyText": null, "DependencyXML": null, "DisplayName": null, "displayOrder": 0, )"
           R"("DOH_ObjStatus": 0, "featureLicenseBit": 0, "isRawData": )" + std::to_string(raw) + R"(, "Key": ")" + key +
           R"(", "maxLength": 0, "minLength": 0, "Name": null, "objExtFlags": 0, "PendingValue": null, "readPrivilege": 0, )"
           R"("suppressed": 0, "writePr  ivilege": 0, "SingleRecordEtag": ")" + tag + R"("})";
}
// clang-format on

std::string RawChange(const std::string &key, const std::string &value)
{
    return R"({"TableName": "TblStrAttribute", "RowDetails": )" +
           RawRow(key, value, 1, "T") +
           R"(, "PropertiesChanged": {"CurrentValue": )" + value +
           R"(, "isRawData": 1, "SingleRecordEtag": "T"}})";
}

std::string Repeat(const std::string &text, size_t times)
{
    std::string all;
    while (times-- > 0)
    {
        all += text;
    }
    return all;
}

// The lines of a row that is read; SQLite writes it without blanks.
Lines Selected(const std::string &row)
{
    const JsonPtr parsed(json_loads(row.c_str(), 0, nullptr));
    const JsonText text(json_dumps(parsed.get(), JSON_COMPACT));
    return Lines{"Select query output = " + std::string(text.get())} + kDone;
}

// The lines of an import that ends well.
Lines Written(const std::string &key, const std::string &value)
{
    const std::string change = RawChange(key, value);
    return Selected(RawRow(key, R"("old")", 0, "1")) +
           Selected(RawRow(key, value, 1, "T")) +
           Lines{"[4052] Value unequal for key = CurrentValue",
                 "[4052] Value unequal for key = isRawData",
                 "[4052] Value unequal for key = SingleRecordEtag",
                 "Json_Out_Str = " + change,
                 "buffer =" + change + "\n",
                 End(0)};
}

// Those of one that can't be announced.
Lines Unread(int status)
{
    return {kUnread + std::to_string(status), End(status)};
}

Lines FileRead(const std::string &buffer)
{
    return {kPresent, kReadFile, kBuffer + buffer};
}

Lines Encoded(int length, const std::string &buffer)
{
    return {kPresent,
            kReadFile,
            "EncodeBase64: Entry\n",
            "___ EncodeBase64 : bufLen = " + std::to_string(length) +
                " pBuffMem->length = " + std::to_string(buffer.size() + 1) +
                "\n",
            "EncodeBase64: Exit\n",
            kBuffer + buffer};
}

int LevelOf(const std::string &line)
{
    for (const std::string &loud :
         {kMissing, kNoBytes, kUnreadable, kNoRow, kNoBind, kNotWritten,
          std::string("Bind failed")})
    {
        if (line.find(loud) == 0)
        {
            return 2;
        }
    }
    return line.find(kUnread) == 0 ? 3 : 6;
}

Bytes RawRecord(const std::string &key, const std::string &path)
{
    const auto pathAt = static_cast<uint32_t>(24 + key.size() + 1);
    return Record(1130, {24, pathAt}, key + '\0' + path + '\0');
}

int Import(const std::string &key, const std::string &path)
{
    return ObjectNotificationRawData(EventOf(RawRecord(key, path)), 1130);
}

// One import by an event, and all that it shows.
struct Case
{
    const char *name;
    std::string key;
    std::string path;
    Lines lines;        // behind those of the record
    std::string row;    // "value|isRawData|whether the tag moved" as SQL has it
    std::string change; // "": nothing is announced
    bool written = true;
    std::string before = "'old'";
    std::function<void()> arm = [] {};
    int level = 6; // the highest whose lines are known
};

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
    void Restore(const std::string &value = "'old'")
    {
        mirror_.Rows("UPDATE TblStrAttribute SET CurrentValue = " + value +
                     ", isRawData = 0, SingleRecordEtag = '1'");
        Announced();
        pipe_->Take();
        Restart();
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

    // The log without times, and without that of the telemetry records.
    static Lines RawLogged()
    {
        static const std::regex kTag(R"re("SingleRecordEtag":"\d{10}")re");
        Lines lines;
        for (const std::string &line : Logged())
        {
            if (line.find("buffer =||") != 0 &&
                line.find(" Operation type") != 0)
            {
                lines.push_back(std::regex_replace(
                    line, kTag, R"("SingleRecordEtag":"T")"));
            }
        }
        return lines;
    }

    // Runs a case once for each level of the log.
    void Check(const Case &test)
    {
        SCOPED_TRACE(test.name);
        const std::string received =
            "Received key " + test.key + " for filepath " + test.path;
        const std::string record = test.key == kMarked ? "2|23" : "1|23";
        Lines lines = Lines{kNotification, received, "Event received : 1130",
                            kEntry, received} +
                      test.lines;
        for (int level = 6; level > 0; --level)
        {
            std::erase_if(lines,
                          [&](const std::string &line)
                          {
                              return LevelOf(line) > level;
                          });
            if (level > test.level)
            {
                continue;
            }
            Restore(test.before);
            CaptureLog(level);
            test.arm();
            EXPECT_EQ(Import(test.key, test.path), 0);
            EXPECT_EQ(RawLogged(), lines);
            EXPECT_EQ(Row(test.key),
                      test.row.empty() ? Lines{} : Lines{test.row});
            EXPECT_EQ(pipe_->Take(), test.written
                                         ? Lines{"TblStrAttribute|" + record}
                                         : Lines{});
            EXPECT_EQ(Announced(), test.change.empty()
                                       ? Lines{}
                                       : Lines{"Changed " + test.change});
        }
    }

    std::optional<PipeReader> pipe_;
};

TEST_F(RawData, TakesWhatAFileHolds)
{
    const auto is = [](const char *name, const char *key,
                       const std::string &path, const std::string &value,
                       const Lines &lines, int level = 6)
    {
        // None of the values has a quote.
        std::string sql = value == "null" ? "NULL" : value;
        std::ranges::replace(sql, '"', '\'');
        sql = std::regex_replace(sql, std::regex(R"(\\n)"), "\n");
        Case test = {name,         key,
                     path,         lines + Written(key, value),
                     sql + "|1|1", RawChange(key, value)};
        test.level = level;
        return test;
    };
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
    const Lines tooLarge = {
        kPresent, kReadFile,
        "Error: Can not allocate memory for file copy of size 2147483647 \n",
        kUnreadable};
    using namespace std::string_literals;
    // clang-format off
    const Case cases[] = {
        is("text", kPlain, text, R"("a\nb")", FileRead("a\nb")),
        is("link", kPlain, link, R"("a\nb")", FileRead("a\nb")),
        is("zeros inside", kPlain, Write("zeros", "ab\0cd"s), R"("ab")", FileRead("ab")),
        is("zero at first", kPlain, Write("zero", "\0ab"s), "null", FileRead("")),
        is("encoded", kMarked, Write("encoded", a48 + "AA"), "\"" + line + R"(\nQUE=")", Encoded(50, line + "\nQUE=")),
        is("one encoded line", kMarked, Write("line", a48), "\"" + line + "\"", Encoded(48, line)),
        is("encoded zeros", kMarked, Write("nul", "\0\0"s), R"("AAA=")", Encoded(2, "AAA=")),
        is("empty", kPlain, Write("empty", ""), "null", {kNoBytes}),
        is("empty, to be encoded", kMarked, Directory() + "empty", "null", {kNoBytes}),
        is("missing", kPlain, Directory() + "none", "null", {kMissing}),
        is("no path", kPlain, "", "null", {kMissing}),
        is("below a file", kPlain, text + "/x", "null", {kMissing}),
        is("link to itself", kPlain, loop, "null", {kMissing}),
        is("pipe", kPlain, fifo, "null", {kNoBytes}),
        is("device", kPlain, "/dev/zero", "null", {kNoBytes}),
        is("huge", kPlain, huge, "null", tooLarge),
        is("huge, beyond 32 bits", kMarked, wider, "null", tooLarge),
        // Where reading a folder fails is the file system's choice.
        is("folder", kPlain, Directory() + "folder", "null", {kUnreadable}, 3),
    };
    // clang-format on
    for (const Case &test : cases)
    {
        Check(test);
    }
}

TEST_F(RawData, SurvivesTheDatabase)
{
    const std::string path = Write("text", "new");
    const std::string invalid = Write("invalid", "\xFF");
    const std::string longText(3000, 'x');
    const std::string longer = Write("longer", longText);
    const std::string longKey(3000, 'k');
    const Lines old = Selected(RawRow(kPlain, R"("old")", 0, "1"));
    const Lines now = Selected(RawRow(kPlain, R"("new")", 1, "T"));
    const std::string kNewJson = "\"new\"";
    const std::string change = RawChange(kPlain, kNewJson);
    const Lines read = FileRead("new");
    const Lines none = Lines{kNoRow} + kDone;
    const auto garbled = [](int raw, const std::string &tag)
    {
        Lines lines = Selected(RawRow(kPlain, "99", raw, tag));
        lines[0].replace(lines[0].find("99"), 2, "\"\xFF\"");
        return lines;
    };
    const auto rest = [](const std::string &value)
    {
        const Lines lines = Written(kPlain, value);
        return Lines(lines.begin() + 3, lines.end());
    };
    const std::string kKept = "'old'|0|0";
    const std::string kNew = "'new'|1|1";
    // clang-format off
    const Case cases[] = {
        {"key in another case", "CERTS.1#pLAIN", path, read + old + rest(kNewJson), kNew, change},
        {"no row", "Nobody", path, read + none + none + Unread(101), "", "", false},
        {"first prepare", kPlain, path, read + Lines{kNoPrepare + "1"} + now + Unread(1), kNew, "", true, "'old'",
         [] { FailPrepares(kSelect, SQLITE_ERROR, 1); }},
        {"prepare of the update", kPlain, path, read + old + Lines{kNoPrepare + "7", kNotWritten + "7", End(7)}, kKept, "", false, "'old'",
         [] { FailPrepares(kUpdate, SQLITE_NOMEM, 1); }},
        {"second prepare", kPlain, path, read + old + Lines{kNoPrepare + "1"} + Unread(1), kNew, "", true, "'old'",
         [] { FailPrepares(kSelect, SQLITE_ERROR, 1, 1); }},
        {"first step", kPlain, path, read + none + now + Unread(5), kNew, "", true, "'old'",
         [] { FailSteps(kSelect, SQLITE_BUSY, 1); }},
        {"row without text", kPlain, path, read + Lines{"Select query output is NULL"} + kDone + now + Unread(-1), kNew, "", true, "'old'",
         [] { FailSteps(kSelect, SQLITE_ROW, 1); }},
        {"step of the update", kPlain, path, read + old + Failure(11) + Lines{kNotWritten + "-1", End(-1)}, kKept, "", false, "'old'",
         [] { FailSteps(kUpdate, SQLITE_CORRUPT, 1); }},
        {"update that waits", kPlain, path, read + old + Lines(2, kRetry) + rest(kNewJson), kNew, change, true, "'old'",
         [] { FailSteps(kUpdate, SQLITE_BUSY, 2); }},
        {"update that waits in vain", kPlain, path, read + old + Lines(100, kRetry) + Lines{kUsedUp, kNotWritten + "-1", End(-1)}, kKept, "", false, "'old'",
         [] { FailSteps(kUpdate, SQLITE_LOCKED, 100); }},
        {"second step", kPlain, path, read + old + none + Unread(101), kNew, "", true, "'old'",
         [] { FailSteps(kSelect, SQLITE_DONE, 1, 1); }},
        {"content that is no text", kPlain, invalid, FileRead("\xFF") + old + garbled(1, "T") + Unread(-1), "'\xFF'|1|1", ""},
        {"after such content", kPlain, path, read + garbled(0, "1") + now + Unread(-1), kNew, "", true, "CAST(x'FF' AS TEXT)"},
        {"value too long", kPlain, longer, FileRead(longText) + old + Lines{kNoBind + "18"} + rest("null"), "NULL|1|1", RawChange(kPlain, "null"), true, "'old'",
         [] { sqlite3_limit(QDVdbHandle, SQLITE_LIMIT_LENGTH, 2000); }},
        {"key too long", longKey, path, read + Lines{"Bind failed Error: 18"} + none + Lines{kNoBind + "18", "Bind failed Error: 18"} + none + Unread(101), "", "", false, "'old'",
         [] { sqlite3_limit(QDVdbHandle, SQLITE_LIMIT_LENGTH, 2000); }},
    };
    // clang-format on
    const int length = sqlite3_limit(QDVdbHandle, SQLITE_LIMIT_LENGTH, -1);
    for (const Case &test : cases)
    {
        Check(test);
        sqlite3_limit(QDVdbHandle, SQLITE_LIMIT_LENGTH, length);
    }
    sqlite3 *handle = QDVdbHandle.exchange(nullptr);
    Check({"no connection", kPlain, path,
           read + Lines{"[4052]Error: DB handle not available"}, kKept, "",
           false});
    QDVdbHandle = handle;
}

// The tag stands still when two imports meet in one second.
TEST_F(RawData, AnnouncesEvenNoChange)
{
    const std::string path = Write("text", "old");
    mirror_.Rows("CREATE TRIGGER still AFTER UPDATE ON TblStrAttribute BEGIN "
                 "UPDATE TblStrAttribute SET SingleRecordEtag = '1'; END");
    EXPECT_EQ(Import(kPlain, path), 0);
    Announced();
    Restart(3);
    EXPECT_EQ(Import(kPlain, path), 0);
    EXPECT_EQ(Announced(), Lines{R"(Changed {"TableName": "TblStrAttribute", )"
                                 R"("RowDetails": )" +
                                 RawRow(kPlain, R"("old")", 1, "1") +
                                 R"(, "PropertiesChanged": {}})"});
    EXPECT_EQ(LogLines(), Lines{});
}

TEST_F(RawData, TakesTenMegabytes)
{
    constexpr size_t kGroups = 10 * 1024 * 1024 / 3;
    std::string content = Repeat("AAA", kGroups) + "A";
    std::string encoded = Repeat(Repeat("QUFB", 16) + "\n", kGroups / 16) +
                          Repeat("QUFB", kGroups % 16) + "QQ==";
    const std::string path = Write("large", content);
    for (const auto &[key, value] :
         {std::pair(kPlain, &content), std::pair(kMarked, &encoded)})
    {
        SCOPED_TRACE(key);
        Restore();
        CaptureLog(3);
        EXPECT_EQ(Import(key, path), 0);
        EXPECT_EQ(LogLines(), Lines{});
        const std::string stored =
            mirror_.Value("SELECT CurrentValue FROM TblStrAttribute WHERE "
                          "Key = '" +
                          std::string(key) + "'");
        EXPECT_TRUE(stored == *value) << stored.size();
        const std::vector<Change> changes = listener_.WaitFor(1);
        ASSERT_EQ(changes.size(), 1U);
        const JsonPtr json(json_loads(changes[0].json.c_str(), 0, nullptr));
        for (const char *part : {"RowDetails", "PropertiesChanged"})
        {
            const char *sent = json_string_value(json_object_get(
                json_object_get(json.get(), part), "CurrentValue"));
            EXPECT_TRUE(sent != nullptr && sent == *value) << part;
        }
        listener_.Clear();
    }
}

TEST_F(RawData, RefusesBadRecords)
{
    const std::string texts("key\0/path\0", 10);
    // clang-format off
    const std::pair<const char *, Bytes> kCases[] = {
        {"header alone", Record(1130, {})},
        {"no path", Record(1130, {24})},
        {"path cut off", Record(1130, {24, 28}, texts, 23)},
        {"key at the end", Record(1130, {34, 28}, texts)},
        {"path at the end", Record(1130, {24, 34}, texts)},
        {"key far away", Record(1130, {0xFFFFFFFF, 28}, texts)},
        {"path far away", Record(1130, {24, 0x80000018}, texts)},
        {"endless path", Record(1130, {24, 28}, texts, 33)},
        {"endless key", Record(1130, {24, 24}, texts, 27)},
        {"of no size", Record(1130, {24, 28}, texts, 0)},
    };
    // clang-format on
    const Lines refused = {kNotification,
                           "ObjectNotificationRawData: Invalid Argument, "
                           "notification not processed\n"};
    EXPECT_EQ(ObjectNotificationRawData(nullptr, 1130), 2);
    EXPECT_EQ(LogLines(), refused);
    for (const auto &[name, record] : kCases)
    {
        SCOPED_TRACE(name);
        Restart();
        EXPECT_EQ(ObjectNotificationRawData(EventOf(record), 1130), 2);
        EXPECT_EQ(LogLines(), refused);
    }
    Restart();
    const Bytes other = RawRecord(kPlain, "/none");
    EXPECT_EQ(ObjectNotificationRawData(EventOf(other), 7), 0);
    EXPECT_EQ(
        LogLines(),
        (Lines{kNotification, "Received key Certs.1#Plain for filepath /none",
               "Event received : 7", "Event received : 7 is not supported"}));
    EXPECT_EQ(Row(kPlain), Lines{"'old'|0|0"});
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
        EXPECT_EQ(LogLines(), (Lines{kReadFile, line}));
    }
    for (const auto &[data, length] :
         {std::pair<const char *, int>(nullptr, 1), {"x", 0}, {"x", -1}})
    {
        Restart();
        EXPECT_EQ(EncodeBase64(data, length), nullptr);
        EXPECT_EQ(LogLines(), (Lines{"EncodeBase64: Entry\n",
                                     "EncodeBase64: bad input buffer \n"}));
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
                            [&](int)
                            {
                                EXPECT_EQ(isFree(refresh), expected);
                                EXPECT_TRUE(isFree(SqliteStepMutex));
                            });
        EXPECT_EQ(Import(kPlain, path), 0);
        EXPECT_GE(hook.Count(), 1);
    }
}

TEST_F(RawData, WorkersImport)
{
    const Bytes record = RawRecord(kPlain, Write("text", "new"));
    auto *copy = static_cast<DataEventHeader *>(std::malloc(record.size()));
    std::memcpy(copy, record.data(), record.size());
    static DataEventHeader stop = {};
    stop.evtType = 1001;
    QdbenQueue(gQdbEventQueue, copy);
    QdbenQueue(gQdbEventQueue, &stop);
    QdbWorkerArg argument = {1};
    QdbWorkerThread(&argument);
    EXPECT_EQ(Row(kPlain), Lines{"'new'|1|1"});
    EXPECT_EQ(Announced(), Lines{"Changed " + RawChange(kPlain, R"("new")")});
}

TEST_F(RawData, StartsWithTheDirectory)
{
    const Lines entry = {"OnLoadRawObjectsUpdate: Entry\n",
                         "UpdateObjectsForAllRawData: Entry\n"};
    const Lines exit = {"UpdateObjectsForAllRawData: Exit\n",
                        "OnLoadRawObjectsUpdate: Exit\n"};
    // The lines of a file that is passed over.
    const auto passed = [&](const std::string &name, const std::string &path,
                            const std::string &found, const std::string &why)
    {
        return entry +
               Lines{" filename = " + name + "\n",
                     kEntry,
                     "Received key " + name + " for filepath " + path,
                     found,
                     "RefreshObj_4052_RawData: " + why +
                         ", notification not processed\n",
                     " event update status = 0 for key " + name + "\n"} +
               exit;
    };
    const std::string empty = Write(kPlain, "");
    Write(".hidden", "new");
    OnLoadRawObjectsUpdate();
    EXPECT_EQ(LogLines(),
              passed(kPlain, empty, kNoBytes, "filepath has no data"));
    EXPECT_EQ(Row(kPlain), Lines{"'old'|0|0"});

    // A path that is cut names nothing.
    const std::string deep =
        mirror_.Root().Path() + Repeat("/" + std::string(200, 'd'), 2);
    const std::string folder = deep + "/mnt/persistent_data/data0/gen_certs/";
    const std::string name(100, 'n');
    fs::create_directories(folder);
    std::ofstream(folder + name) << "new";
    gRuntimeRoot = deep.c_str();
    Restart();
    OnLoadRawObjectsUpdate();
    EXPECT_EQ(LogLines(), passed(name, (folder + name).substr(0, 511), kMissing,
                                 "Invalid filepath"));
    gRuntimeRoot = "/nowhere";
    Restart();
    OnLoadRawObjectsUpdate();
    EXPECT_EQ(LogLines(), entry + exit);
    gRuntimeRoot = mirror_.Root().Path().c_str();

    // The readiness that announces comes later.
    Write("certs.1#PLAIN", "new");
    Write(kMarked, "AA");
    Restart();
    DbusEventsEnabled = 0;
    OnLoadRawObjectsUpdate();
    DbusEventsEnabled = 1;
    EXPECT_EQ(Row(kPlain), Lines{"'new'|1|1"});
    EXPECT_EQ(Row(kMarked), Lines{"'QUE='|1|1"});
    EXPECT_EQ(CountLog(" filename = "), 3);
    EXPECT_EQ(CountLog(" event update status = 0 for key "), 3);
    EXPECT_EQ(pipe_->Take().size(), 2U);
    EXPECT_EQ(Announced(), Lines{});
}

} // namespace
} // namespace qdb::test

// From the bus's records to the handlers of configuration attributes.

#include "core/json.h"
#include "core/state.h"
#include "db/clearing.h"
#include "events/bus_dispatch.h"
#include "events/queues/event_queue.h"
#include "objects/catalogue.h"
#include "platform/standin/state.h"
#include "tests/support/db_fixture.h"
#include "tests/support/event_records.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>

namespace qdb::test
{
namespace
{

constexpr uint16_t kDirty = 3;
constexpr uint16_t kCreate = 7;
constexpr uint16_t kDestroy = 8;
constexpr uint16_t kRestarted = 23;

const std::string kPrefix = "com.vexo.tarnu.Config.";
const std::string kInt = kPrefix + "CfgIntAttribute";
const std::string kKey = "Test.1#Group.1#Name";
const std::string kPath =
    "/com/vexo/tarnu/Config/Attributes/test_1/group_1/name";

int Notify(const Bytes &record)
{
    return ObjectNotificationDbus(EventOf(record), 65533);
}

int Notify(uint16_t kind, uint32_t oid = 16)
{
    return Notify(BusRecord(kind, oid, kPath, kInt));
}

void Put(const std::string &interfaceName, const std::string &values,
         uint32_t oid = 16)
{
    const JsonPtr parsed(json_loads(values.c_str(), 0, nullptr));
    ASSERT_NE(parsed, nullptr) << values;
    EXPECT_EQ(standin::PutAttribute(interfaceName.substr(kPrefix.size()), kKey,
                                    parsed.get(), oid),
              "");
}

// An attribute whose display name can't be read as it stands.
void PutBroken()
{
    Put(kInt, R"({"DisplayName": "x"})");
    standin::State &state = standin::TheState();
    const std::lock_guard lock(state.lock);
    state.attributes.at(kKey).bytes.at(0x21) = 0x20;
}

class BusDispatch : public DbTest
{
  protected:
    std::string Value(const std::string &column)
    {
        return mirror_.Value("SELECT " + column + " FROM TblIntAttribute");
    }
    std::string Mapped()
    {
        return mirror_.Value("SELECT count(*) FROM ActiveOIDMapping");
    }
};

TEST_F(BusDispatch, RefusesMalformedRecords)
{
    const std::string event =
        "Invalid Event information, notification not processed\n";
    const std::string type = "Invalid Event Type, notification not processed\n";
    const auto unknown = [](const std::string &name)
    {
        return "unknown intf/objType = " + name +
               ", notification not processed\n";
    };
    const auto body = [](uint32_t kind, uint32_t path, uint32_t interfaceAt,
                         size_t claimed = SIZE_MAX)
    {
        return Record(65533, {kind, 16, path, interfaceAt},
                      kPath + '\0' + kInt + '\0', claimed);
    };
    const auto intAt = static_cast<uint32_t>(32 + kPath.size() + 1);
    const size_t size = body(7, 32, intAt).size();
    const auto end = static_cast<uint32_t>(size);
    struct Case
    {
        const char *name;
        Bytes record;
        int result;
        std::string line;
    };
    // clang-format off
    const Case cases[] = {
        {"header alone", Record(65533, {}), 2, event},
        {"no path", body(7, 0, intAt), 2, event},
        {"no interface", body(7, 32, 0), 2, event},
        {"offsets cut off", body(7, 32, intAt, 31), 2, event},
        {"path at the end", body(7, end, intAt), 2, type},
        {"interface at the end", body(7, 32, end), 2, type},
        {"path far behind", body(7, 0xFFFFFFFF, intAt), 2, type},
        {"interface far behind", body(7, 32, 0xFFFFFFFF), 2, type},
        {"interface without end", body(7, 32, intAt, size - 1), 2, type},
        {"path without end", body(7, end - 2, 32, size - 1), 2, type},
        {"cut off before the interface", body(7, 32, intAt, intAt), 2, type},
        {"unknown kind", body(4, 32, intAt), 2, "unknown thisEventType = 4, notification not processed\n"},
        {"kind in the upper half", body(0x70000, 32, intAt), 2, "unknown thisEventType = 0, notification not processed\n"},
        {"unknown interface created", BusRecord(kCreate, 16, kPath, kInt + "s"), -1, unknown(kInt + "s")},
        {"unknown interface changed", BusRecord(kDirty, 16, kPath, "CfgIntAttribute"), -1, unknown("CfgIntAttribute")},
        {"unknown interface destroyed", BusRecord(kDestroy, 16, kPath, ""), -1, unknown("")},
    };
    // clang-format on
    Put(kInt, "{}");
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        Restart();
        EXPECT_EQ(Notify(test.record), test.result);
        EXPECT_EQ(LogLines().back(), test.line);
        EXPECT_EQ(PrepareCount("") + StepCount(""), 0);
    }
    Restart();
    EXPECT_EQ(ObjectNotificationDbus(nullptr, 65533), 2);
    EXPECT_EQ(
        ObjectNotificationDbus(EventOf(BusRecord(kCreate, 16, kPath, kInt)), 7),
        2);
    EXPECT_EQ(LogLines(), (Lines{"Entry",
                                 "Invalid Argument pDEH null, notification "
                                 "not processed\n",
                                 "Entry", type}));
    EXPECT_EQ(Mapped(), "0");
}

// The upper bits of the kind's word aren't looked at.
TEST_F(BusDispatch, TakesTheKindFromSixteenBits)
{
    Put(kInt, "{}");
    Bytes record = BusRecord(kCreate, 16, kPath, kInt);
    record[18] = 0xFF;
    EXPECT_EQ(Notify(record), 0);
    EXPECT_EQ(Mapped(), "1");
}

TEST_F(BusDispatch, WritesAllFourKindsOfAttributes)
{
    struct Case
    {
        const char *name;
        const char *nameInLog;
        int type;
        const char *table;
        const char *column;
        const char *before;
        const char *after;
    };
    // clang-format off
    const Case cases[] = {
        {"CfgIntAttribute", "TYPE_CFGINT", 0x4051, "TblIntAttribute", "currentValue", "1", "2"},
        {"CfgStrAttribute", "TYPE_CFGSTR", 0x4052, "TblStrAttribute", "CurrentValue", "\"a\"", "\"b\""},
        {"CfgEnumAttribute", "TYPE_CFGENUM", 0x4053, "TblEnumAttribute", "CurrentValue", "\"a\"", "\"b\""},
        {"CfgPasswdAttribute", "TYPE_CFGPASSWD", 0x4054, "TblPasswdAttribute", "DefaultValue", "\"a\"", "\"b\""},
    };
    // clang-format on
    int index = 0;
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        standin::Reset();
        const std::string interface = kPrefix + test.name;
        const auto values = [&](const char *value)
        {
            return std::string("{\"") + test.column + "\": " + value + "}";
        };
        const std::string row = std::string("SELECT OID, ") + test.column +
                                ", ParentObjectKey FROM " + test.table;
        const auto expected = [](std::string value)
        {
            std::erase(value, '"');
            return "16|" + value + "|Test.1#Group.1";
        };
        const std::string typeLine =
            std::string("ObjType = ") + test.nameInLog + "\n";

        Put(interface, values(test.before));
        Restart();
        EXPECT_EQ(Notify(BusRecord(kCreate, 0, kPath, interface)), 0);
        EXPECT_EQ(mirror_.Value(row), expected(test.before));
        EXPECT_EQ(CountLog("thisEventType 7\n"), 1);
        EXPECT_EQ(CountLog("path =  " + kPath + "\n"), 1);
        EXPECT_EQ(CountLog("intf = " + interface + " oid = 0\n"), 1);
        EXPECT_EQ(CountLog(typeLine), 1);
        EXPECT_EQ(
            CountLog("DATA_EVENT_DATA_OBJ_CREATE path_p: " + kPath + " \n"), 1);
        EXPECT_EQ(
            CountLog("DATA_EVENT_DATA_OBJ_CREATE intf_p: " + interface + " \n"),
            1);
        EXPECT_EQ(CountLog("Parent Object found pParentDOH="), 1);
        EXPECT_EQ(LogLines().back(), "Exit");

        Put(interface, values(test.after));
        Restart();
        EXPECT_EQ(Notify(BusRecord(kDirty, 0, kPath, interface)), 0);
        EXPECT_EQ(mirror_.Value(row), expected(test.after));
        EXPECT_EQ(CountLog(typeLine), 1);
        EXPECT_EQ(CountLog("DATA_EVENT_DATA_OBJ_DIRTY_LIST path: " + kPath), 1);
        EXPECT_EQ(CountLog("DATA_EVENT_DATA_OBJ_DIRTY_LIST intf: " + interface),
                  1);

        Restart();
        EXPECT_EQ(Notify(BusRecord(kDestroy, 16, kPath, interface)), 0);
        EXPECT_EQ(Mapped(), "0");
        EXPECT_EQ(CountLog(typeLine), 1);
        char found[80];
        std::snprintf(found, sizeof(found),
                      "found_i=  %d DOH_p->objType = %x oid = 16\n", index,
                      static_cast<unsigned>(test.type));
        EXPECT_EQ(CountLog(found), 1);
        EXPECT_EQ(CountLog("DOH_p->objSize = 16 DOH_p->objType = " +
                           std::to_string(test.type) + "\n"),
                  1);
        ++index;
    }
}

TEST_F(BusDispatch, SaysAtLevelThreeWhatComes)
{
    Put(kInt, "{}");
    Restart(3);
    EXPECT_EQ(Notify(kCreate), 0);
    EXPECT_EQ(LogLines(),
              Lines{" Received DATA_EVENT_DATA_OBJ_CREATE,  processing\n"});
    Restart(3);
    EXPECT_EQ(Notify(kDirty), 0);
    EXPECT_EQ(LogLines(),
              (Lines{" Received thisEventType DATA_EVENT_DATA_OBJ_DIRTY_LIST, "
                     " processing\n",
                     "[4051] No change set found for 16 10. Error: 0"}));
    Restart(3);
    EXPECT_EQ(Notify(kDestroy), 0);
    Lines lines = LogLines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], " Received DATA_EVENT_DATA_OBJ_DESTROY,  processing\n");
    EXPECT_EQ(lines[1].find("calling DeleteObjFP loop="), 0U);
    EXPECT_EQ(lines[2], "returned from DeleteObjFP\n");
}

TEST_F(BusDispatch, GoesOnWithoutAGroup)
{
    Put(kInt, "{}");
    standin::SetFault("CfgGroup_get_object", 5, 1);
    CaptureLog(1);
    EXPECT_EQ(Notify(kCreate), 0);
    EXPECT_EQ(LogLines(), Lines{"Parent not found: " + kPath + "\n"});
    EXPECT_EQ(Value("ParentObjectKey"), "NULL");
}

TEST_F(BusDispatch, TellsOfAttributesThatAreGone)
{
    for (const uint16_t kind : {kCreate, kDirty})
    {
        Restart(3);
        EXPECT_EQ(Notify(kind), 1);
        EXPECT_EQ(LogLines().back(),
                  "ZO_STATUS_NO_SUCH_OBJECT1: " + kPath + "\n");
        EXPECT_EQ(Mapped(), "0");
    }
    // A destroy asks nobody.
    EXPECT_EQ(Notify(kDestroy), -1);
}

TEST_F(BusDispatch, FetchesUnreadableAttributesAgain)
{
    struct Case
    {
        const char *name;
        uint16_t kind;
        int goneAt; // lines until the attribute vanishes, until it is mended
        int mendedAt;
        int result;
        int lines;
        const char *value;
    };
    const Case cases[] = {
        {"create, mended at the third", kCreate, 0, 3, 0, 3, "7"},
        {"create, never", kCreate, 0, 0, -1, 100, nullptr},
        {"create, vanishes", kCreate, 2, 0, -1, 2, nullptr},
        {"refresh, mended at the third", kDirty, 0, 3, 0, 3, "7"},
        {"refresh, never", kDirty, 0, 0, -1, 100, "1"},
        {"refresh, vanishes", kDirty, 1, 0, -1, 1, "1"},
    };
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        standin::Reset();
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        if (test.kind == kDirty)
        {
            Put(kInt, R"({"currentValue": 1})");
            EXPECT_EQ(Notify(kCreate), 0);
        }
        PutBroken();
        const std::string line =
            std::string("ObjectNotification: DATA_EVENT_DATA_OBJ_") +
            (test.kind == kCreate ? "CREATE" : "DIRTY_LIST") +
            ": ZO_STATUS_INVALID_VALUE returned\n";
        Restart();
        {
            const LineHook hook(
                line,
                [&](int count)
                {
                    if (count == test.goneAt)
                    {
                        standin::RemoveAttribute(kKey);
                    }
                    if (count == test.mendedAt)
                    {
                        Put(kInt, R"({"DisplayName": "x", "currentValue": 7})");
                    }
                });
            EXPECT_EQ(Notify(test.kind), test.result);
            EXPECT_EQ(hook.Count(), test.lines);
        }
        EXPECT_EQ(SleepCount(), 0);
        EXPECT_EQ(mirror_.Rows("SELECT currentValue FROM TblIntAttribute"),
                  test.value == nullptr ? Lines{} : Lines{test.value});
    }
}

// Only a create says so when the attribute vanished meanwhile.
TEST_F(BusDispatch, TellsOfAttributesThatVanish)
{
    PutBroken();
    // The first fetch works, the second one doesn't.
    standin::SetFault("CfgIntAttribute_get_object", 5, 1, 1);
    CaptureLog(3);
    EXPECT_EQ(Notify(kCreate), -1);
    EXPECT_EQ(CountLog("ZO_STATUS_NO_SUCH_OBJECT3: " + kPath + "\n"), 1);

    Put(kInt, R"({"DisplayName": "x"})");
    EXPECT_EQ(Notify(kCreate), 0);
    PutBroken();
    standin::SetFault("CfgIntAttribute_get_object", 5, 1, 1);
    CaptureLog(3);
    EXPECT_EQ(Notify(kDirty), -1);
    EXPECT_EQ(CountLog("ZO_STATUS_NO_SUCH_OBJECT"), 0);
}

TEST_F(BusDispatch, TriesABusyDatabaseAgainAtOnce)
{
    struct Case
    {
        int status;
        int times;
        int result;
        int retries;
    };
    Put(kInt, "{}");
    EXPECT_EQ(Notify(kCreate), 0);
    for (const Case &test : {Case{SQLITE_BUSY, 100, -1, 100},
                             {SQLITE_LOCKED, 99, 0, 99},
                             {SQLITE_CORRUPT, 1, 11, 0},
                             {SQLITE_ERROR, 1, -1, 0}})
    {
        SCOPED_TRACE(test.status);
        FinalizeHandlerStatements();
        Restart();
        FailPrepares("UPDATE TblIntAttribute", test.status, test.times);
        EXPECT_EQ(Notify(kDirty), test.result);
        EXPECT_EQ(CountLog(kRetry), test.retries);
        EXPECT_EQ(SleepCount(), 0);
    }
}

TEST_F(BusDispatch, GivesADestroysOwnResult)
{
    Put(kInt, "{}");
    EXPECT_EQ(Notify(kCreate), 0);
    FailSteps("DELETE FROM ActiveOIDMapping", SQLITE_CORRUPT, 2);
    EXPECT_EQ(Notify(kDestroy), 11);
    ClearSqliteFaults();
    FailSteps("DELETE FROM ActiveOIDMapping", SQLITE_ERROR, 2);
    EXPECT_EQ(Notify(kDestroy), -1);
    EXPECT_EQ(Notify(kDestroy, 17), -1);
    EXPECT_EQ(Mapped(), "1");
    EXPECT_EQ(Notify(kDestroy), 0);
}

TEST_F(BusDispatch, EmptiesTheTablesOnARestart)
{
    const auto fill = [&]
    {
        uint32_t oid = 100;
        for (const unsigned number :
             {0x4051u, 0x4052u, 0x4053u, 0x4054u, 0x1001u})
        {
            const auto type = static_cast<uint16_t>(number);
            EXPECT_EQ(FindRow(type)->CreateObjFP(
                          HeaderOf(MakeObject(type, oid)), nullptr),
                      0);
            ++oid;
        }
    };
    fill();
    const Bytes restart = Record(65533, {kRestarted, 0, 0, 0});
    Restart(3);
    EXPECT_EQ(Notify(restart), 0);
    EXPECT_EQ(LogLines().front(),
              " Received thisEventType DATA_EVENT_POP_UNLOADED,  "
              "processing\n");
    EXPECT_EQ(mirror_.Rows("SELECT OID FROM ActiveOIDMapping"), Lines{"104"});
    mirror_.Rows("DELETE FROM ActiveOIDMapping");

    fill();
    Restart(3);
    FailPrepares("INNER JOIN TblEnumAttribute", SQLITE_ERROR, 1);
    EXPECT_EQ(Notify(restart), -1);
    EXPECT_EQ(LogLines().back(), "Failed to clear on of the tables.\n");
    EXPECT_EQ(mirror_.Rows("SELECT OID FROM ActiveOIDMapping"),
              (Lines{"102", "103", "104"}));
}

TEST_F(BusDispatch, WorkersShowTheWholeRecord)
{
    Put(kInt, "{}");
    const Bytes record = BusRecord(kCreate, 16, kPath, kInt);
    auto *copy = static_cast<DataEventHeader *>(std::malloc(record.size()));
    std::memcpy(copy, record.data(), record.size());
    static DataEventHeader stop = {};
    stop.evtType = 1001;
    QdbenQueue(gQdbEventQueue, copy);
    QdbenQueue(gQdbEventQueue, &stop);
    QdbWorkerArg argument = {3};
    pthread_t worker;
    ASSERT_EQ(pthread_create(&worker, nullptr, QdbWorkerThread, &argument), 0);
    pthread_join(worker, nullptr);
    EXPECT_EQ(Mapped(), "1");
    Lines lines = LogLines();
    std::erase_if(lines,
                  [](const std::string &line)
                  {
                      return line.find("qdv_dequeue") == std::string::npos &&
                             line.find("TO_QDB") == std::string::npos;
                  });
    const std::string size = std::to_string(record.size());
    const std::string interfaceAt = std::to_string(32 + kPath.size() + 1);
    EXPECT_EQ(lines, (Lines{
                         " received DATA_EVENT_DBUS_TO_QDB thID=3",
                         "qdv_dequeue evtSize = [" + size + "] ",
                         "qdv_dequeue evtType = [65533] ",
                         "qdv_dequeue evtFlags = [165] ",
                         "qdv_dequeue evtType = [7]",
                         "qdv_dequeue offsetPath = [32] ",
                         "qdv_dequeue offsetIntf = [" + interfaceAt + "] ",
                         "qdv_dequeue Path = [" + kPath + "]",
                         "qdv_dequeue Intf = [" + kInt + "]",
                     }));
}

} // namespace
} // namespace qdb::test

// The reloads that compare whole objects with the last ones: the keyed object,
// the keyed attributes, and the devices of two types.

#include "config/key_reload.h"
#include "core/json.h"
#include "reconcile/key_reload.h"
#include "reconcile/type_reload.h"
#include "tests/support/config_bytes.h"
#include "tests/support/reload_fixture.h"

namespace qdb::test
{
namespace
{

constexpr uint16_t kSystem = 0x91;
constexpr uint16_t kBlt = 0xEB;
constexpr uint16_t kUsb = 0xEC;
constexpr uint32_t kSystemOid = 5;
constexpr char kFind[] = "Refresh Obj."; // before a copy is made

std::string SystemValues(const std::string &host)
{
    return R"({"Key": "91||System.Embedded.1", "HostName": ")" + host + R"("})";
}

void PutSystem(const std::string &host)
{
    standin::DeleteObjects(Words{kSystemOid}, false);
    const JsonPtr values(json_loads(SystemValues(host).c_str(), 0, nullptr));
    EXPECT_EQ(standin::CreateObject(
                  {kSystem, kSystemOid, {80}, values.get(), ""}, false),
              "");
}

class KeyReload : public NcReload
{
  protected:
    // Leaves the reload of the keyed object without a copy; the object's row
    // says "row".
    void ForgetSystem()
    {
        Clear();
        for (const char *host : {"one", "other"}) // one of them differs
        {
            PutSystem(host);
            const OutOfMemoryAt here(kFind);
            static_cast<void>(ReLoadKeyBasedNCObjects());
        }
        MakeRow(MakeObject(kSystem, kSystemOid, SystemValues("row")));
        ForgetStatements();
        Restart();
    }

    std::string Host()
    {
        return mirror_.Value("SELECT HostName FROM TblSystemInfo");
    }
};

TEST_F(KeyReload, RefreshesTheKeyedObjectWhenItDiffers)
{
    const std::string refresh = "Refresh " + Text(kSystemOid);
    const struct
    {
        const char *name;
        const char *host;
        bool noMemory;
        int fault; // of the update's preparation
        int result;
        Lines calls;
        const char *row;
    } kSteps[] = {
        // clang-format off
        {"first", "a", false, 0, 0, {refresh}, "a"},
        {"same", "a", false, 0, 0, {}, "a"},
        {"changed", "b", false, 0, 0, {refresh}, "b"},
        {"fails", "c", false, 1, -1, {refresh}, "b"},
        {"isn't tried again", "c", false, 0, 0, {}, "b"},
        {"corrupt", "d", false, 11, 11, {refresh}, "b"},
        {"gone", nullptr, false, 0, 256, {}, "b"},
        {"no memory", "e", true, 0, 272, {}, "b"},
        {"no copy", "e", false, 0, 0, {refresh}, "e"},
        // clang-format on
    };
    ForgetSystem();
    for (const auto &step : kSteps)
    {
        SCOPED_TRACE(step.name);
        standin::DeleteObjects(Words{kSystemOid}, false);
        if (step.host != nullptr)
        {
            PutSystem(step.host);
        }
        ForgetStatements();
        Restart();
        FailPrepares("UPDATE TblSystemInfo", step.fault, step.fault != 0);
        if (step.noMemory)
        {
            const OutOfMemoryAt here(kFind);
            EXPECT_EQ(ReLoadKeyBasedNCObjects(), step.result);
            continue;
        }
        EXPECT_EQ(ReLoadKeyBasedNCObjects(), step.result);
        EXPECT_EQ(Calls(), step.calls);
        EXPECT_EQ(Host(), step.row);
    }
}

TEST_F(KeyReload, WritesTheKeyedObjectUntilItWorks)
{
    const struct
    {
        const char *name;
        bool insert;
        std::vector<Fault> faults; // of the statement's preparation
        bool vanishes;
        int result;
        int sleeps;
        unsigned fetches;
        const char *row;
    } kCases[] = {
        {"insert", true, {}, false, 0, 0, 0, "new"},
        {"refresh", false, {}, false, 0, 0, 0, "new"},
        {"busy", false, {{5, 1}, {6, 98}}, false, 0, 99, 0, "new"},
        {"unreadable", false, {{8216, 99}}, false, 0, 0, 99, "newer"},
        {"for ever", false, {{8216, 100}}, false, -1, 0, 100, "row"},
        {"vanishes", false, {{8216, 100}}, true, 256, 0, 1, "row"},
    };
    KeyedRow row = {"91||System.Embedded.1", "", kSystem};
    for (const auto &test : kCases)
    {
        SCOPED_TRACE(test.name);
        ForgetSystem();
        if (test.insert)
        {
            mirror_.Rows("DELETE FROM ActiveOIDMapping");
        }
        PutObject(0x1100, 80);
        PutSystem("new");
        ObjectPtr object = FetchObject(kSystemOid);
        PutSystem("newer");
        if (test.vanishes)
        {
            Remove(kSystemOid);
        }
        FailPrepares("UPDATE TblSystemInfo", test.faults);
        const uint64_t before = standin::CallCount("ZOILGetObjByKey");
        EXPECT_EQ(ReLoadKeyBasedNCObject(std::move(object), row,
                                         test.insert ? RowWrite::Insert
                                                     : RowWrite::Refresh),
                  test.result);
        EXPECT_EQ(standin::CallCount("ZOILGetObjByKey") - before, test.fetches);
        EXPECT_EQ(CountLog("ReLoadKeyBasedNCObjects: ZO_STATUS_INVALID_VALUE "
                           "returned\n"),
                  static_cast<int>(test.fetches));
        EXPECT_EQ(CountLog("Insert the row\n"), test.insert ? 1 : 0);
        EXPECT_EQ(SleptMicroseconds(), test.sleeps * 110000LL);
        EXPECT_EQ(Host(), test.row);
        EXPECT_EQ(mirror_.Value("SELECT ParentObjectKey FROM TblSystemInfo"),
                  test.insert ? "1100||Object.80" : "NULL");
    }
    row.cached.Clear();
}

// The five attributes, in order.
constexpr struct
{
    const char *key;
    const char *interfaceName;
} kAttributes[] = {
    // clang-format off
        {"Tarnu.Embedded.1#SerialCapture.1#SerialDataSize", kIntInterface},
        {"System.Embedded.1#ServerOS.1#ServerPoweredOnTime", kIntInterface},
        {"System.Embedded.1#Diagnostics.1#OSAppCollectionTime", kStrInterface},
        {"System.Embedded.1#SystemInfo.1#BootTime", kStrInterface},
        {"System.Embedded.1#SystemInfo.1#SysTime", kStrInterface},
    // clang-format on
};

class CfgKeyReload : public NcReload
{
  protected:
    static constexpr uint32_t kFirst = 0x4050;

    static void SetName(size_t index, const std::string &name)
    {
        const JsonPtr values(json_pack("{s:s}", "Name", name.c_str()));
        EXPECT_EQ(standin::PutAttribute(kAttributes[index].interfaceName,
                                        kAttributes[index].key, values.get(),
                                        kFirst + static_cast<uint32_t>(index)),
                  "");
    }

    static ConfigObjectPtr Fetch(size_t index)
    {
        DataObjHeader *object = nullptr;
        EXPECT_EQ(dbus_get_data_obj_hdr(
                      index < 2 ? TYPE_CFGINT : TYPE_CFGSTR,
                      standin::AttributePath(kAttributes[index].key).c_str(),
                      &object),
                  0);
        return ConfigObjectPtr(object);
    }

    // All five exist, with rows and without copies.
    void SetUp() override
    {
        Clear();
        for (size_t i = 0; i < std::size(kAttributes); ++i)
        {
            SetName(i, "0");
            ConfigObjectPtr object = Fetch(i);
            EXPECT_EQ(
                FindRow(object->objType)->CreateObjFP(object.get(), nullptr),
                0);
            tNoMemory = true;
            EXPECT_EQ(
                CfgKeyBasedNCObjRefreshHandling(&object, i, RowWrite::Refresh),
                272);
            tNoMemory = false;
        }
        ForgetStatements();
        Restart();
    }

    Lines Names()
    {
        return mirror_.Rows("SELECT OID - 16464, Name FROM TblIntAttribute "
                            "UNION SELECT OID - 16464, Name FROM "
                            "TblStrAttribute ORDER BY 1");
    }
};

TEST_F(CfgKeyReload, WritesWhatDiffersOrIsMissing)
{
    const auto refresh = [](size_t index)
    {
        return "Refresh " + Text(kFirst + static_cast<uint32_t>(index));
    };
    EXPECT_EQ(ReLoadCfgKeyBasedNCObjects(), 0);
    EXPECT_EQ(Calls(), (Lines{refresh(0), refresh(1), refresh(2), refresh(3),
                              refresh(4)}));
    Restart();
    EXPECT_EQ(ReLoadCfgKeyBasedNCObjects(), 0);
    EXPECT_EQ(Calls(), Lines{});
    // A size, bytes, and two missing rows, of which one has no group.
    SetName(0, "longer");
    SetName(2, "1");
    mirror_.Rows("DELETE FROM ActiveOIDMapping WHERE OID IN (" +
                 Text(kFirst + 1) + "," + Text(kFirst + 4) + ")");
    standin::SetFault("CfgGroup_get_object", 5, 1, 1);
    Restart();
    EXPECT_EQ(ReLoadCfgKeyBasedNCObjects(), 0);
    EXPECT_EQ(Calls(), (Lines{refresh(0), "Create " + Text(kFirst + 1),
                              refresh(2), "Create " + Text(kFirst + 4)}));
    EXPECT_EQ(Names(), (Lines{"0|longer", "1|0", "2|1", "3|0", "4|0"}));
    EXPECT_EQ(mirror_.Rows("SELECT ParentObjectKey FROM TblIntAttribute WHERE "
                           "OID = 0x4051 UNION ALL SELECT ParentObjectKey FROM "
                           "TblStrAttribute WHERE OID = 0x4054"),
              (Lines{"System.Embedded.1#ServerOS.1", "NULL"}));
}

TEST_F(CfgKeyReload, ReportsTheLastRow)
{
    const struct
    {
        const char *name;
        size_t gone;        // attribute
        size_t changed;     // another one
        const char *faulty; // preparation
        std::vector<Fault> faults;
        int lostLater; // gets of strings until one fails; -1: none does
        int result;
        size_t calls;
    } kCases[] = {
        // clang-format off
        {"first gone", 0, 9, "", {}, -1, 0, 0},
        {"last gone", 4, 9, "", {}, -1, 256, 0},
        {"corrupt", 9, 4, "UPDATE TblStr", {{11, 1}}, -1, 11, 1},
        {"earlier one corrupt", 9, 2, "UPDATE TblStr", {{11, 1}}, -1, 0, 1},
        {"busy", 9, 4, "UPDATE TblStr", {{5, 99}}, -1, 0, 100},
        {"busy for ever", 9, 4, "UPDATE TblStr", {{6, 100}}, -1, -1, 100},
        {"unreadable", 9, 4, "UPDATE TblStr", {{8216, 1}}, -1, 0, 1},
        {"unreadable, then gone", 9, 4, "UPDATE TblStr", {{8216, 1}}, 3, -1, 1},
        // clang-format on
    };
    for (const auto &test : kCases)
    {
        SCOPED_TRACE(test.name);
        SetUp();
        EXPECT_EQ(ReLoadCfgKeyBasedNCObjects(), 0);
        if (test.gone < 5)
        {
            EXPECT_EQ(standin::RemoveAttribute(kAttributes[test.gone].key), "");
        }
        if (test.changed < 5)
        {
            SetName(test.changed, "1");
        }
        ForgetStatements();
        Restart();
        FailPrepares(test.faulty, test.faults);
        standin::SetFault("CfgStrAttribute_get_object", 5,
                          test.lostLater < 0 ? 0 : 1, test.lostLater);
        EXPECT_EQ(ReLoadCfgKeyBasedNCObjects(), test.result);
        EXPECT_EQ(Calls().size(), test.calls);
        EXPECT_EQ(SleepCount(), 0);
        // What was seen is kept even so.
        ForgetStatements();
        Restart();
        EXPECT_EQ(ReLoadCfgKeyBasedNCObjects(), test.gone == 4 ? 256 : 0);
        EXPECT_EQ(Calls(), Lines{});
    }
}

TEST_F(CfgKeyReload, EndsWithoutMemoryAndRefusesNothing)
{
    {
        const uint64_t before =
            standin::CallCount("CfgIntAttribute_get_object");
        const OutOfMemoryAt here("No previous record");
        EXPECT_EQ(ReLoadCfgKeyBasedNCObjects(), 272);
        EXPECT_EQ(standin::CallCount("CfgIntAttribute_get_object") - before,
                  1U);
    }
    ConfigObjectPtr none;
    for (ConfigObjectPtr *pointer :
         {&none, static_cast<decltype(&none)>(nullptr)})
    {
        Restart(1);
        EXPECT_EQ(CfgKeyBasedNCObjRefreshHandling(pointer, 0, RowWrite::Insert),
                  8216);
        EXPECT_EQ(LogLines(),
                  Lines{"CfgKeyBasedNCObjRefreshHandling: Invalid Parameter "
                        "pDOH=NULL\n"});
    }
}

// A check that fails tells nothing, so that nothing is inserted.
TEST_F(CfgKeyReload, TakesUncheckedRowsForPresent)
{
    EXPECT_EQ(ReLoadCfgKeyBasedNCObjects(), 0);
    mirror_.Rows("DELETE FROM ActiveOIDMapping");
    const struct
    {
        const char *name;
        int prepare; // status
        int step;
    } kCases[] = {
        {"unprepared", 1, 0},
        {"busy", 0, 5},
        {"no row", 0, 101},
    };
    for (const auto &test : kCases)
    {
        SCOPED_TRACE(test.name);
        Restart();
        FailPrepares("SELECT EXISTS", test.prepare, 5 * (test.prepare != 0));
        FailSteps("SELECT EXISTS", test.step, 5 * (test.step != 0));
        EXPECT_EQ(ReLoadCfgKeyBasedNCObjects(), 0);
        EXPECT_EQ(Calls(), Lines{});
        EXPECT_EQ(SleepCount(), 0);
    }
}

class TypeReload : public NcReload
{
  protected:
    void SetUp() override
    {
        ForgetTypes();
    }
    void TearDown() override
    {
        ForgetTypes();
    }

    // Leaves the reload without copies: lists that can't be had take them.
    void ForgetTypes()
    {
        Clear();
        standin::SetFault("ZOILListChildOIDByType", 0, 2);
        EXPECT_EQ(ObjTypeBasedNCObjects(), 256);
        Restart();
    }

    static Bytes Device(uint16_t type, uint32_t oid, const std::string &name)
    {
        return MakeObject(type, oid, R"({"productName": ")" + name + R"("})");
    }

    Lines Names()
    {
        return mirror_.Rows("SELECT OID, productName FROM TblDevBLT UNION "
                            "SELECT OID, productName FROM TblDevUSB");
    }
};

TEST_F(TypeReload, ReplacesWhatDiffers)
{
    Put(Device(kBlt, 5, "a"));
    Put(Device(kUsb, 6, "u"));
    const struct
    {
        const char *name;
        const char *device; // 5; NULL: gone
        bool unlisted;
        std::vector<Fault> faults; // of the mapping's inserts
        int result;
        Lines calls;
        Lines rows;
    } kSteps[] = {
        // clang-format off
        {"first", "a", false, {}, 0, {"Create 5", "Create 6"}, {"5|a", "6|u"}},
        {"same", "a", false, {}, 0, {}, {"5|a", "6|u"}},
        {"bytes", "b", false, {}, 0, {"Delete 5", "Create 5"}, {"5|b", "6|u"}},
        {"size", "bb", false, {}, 0, {"Delete 5", "Create 5"}, {"5|bb", "6|u"}},
        {"fails", "c", false, {{1, 1}}, -1, {"Delete 5", "Create 5"}, {"6|u"}},
        {"isn't tried again", "c", false, {}, 0, {}, {"6|u"}},
        {"no row to delete", "d", false, {}, -1, {"Delete 5", "Create 5"}, {"5|d", "6|u"}},
        {"corrupt", "e", false, {{11, 1}}, 11, {"Delete 5", "Create 5"}, {"6|u"}},
        {"no list", "e", true, {}, 256, {}, {"6|u"}},
        {"new again", "e", false, {}, 0, {"Create 5"}, {"5|e", "6|u"}},
        {"empty list", nullptr, false, {}, 0, {}, {"5|e", "6|u"}},
        {"as before", "e", false, {}, 0, {}, {"5|e", "6|u"}},
        {"list lost", "e", true, {}, 256, {}, {"6|u"}},
        // clang-format on
    };
    for (const auto &step : kSteps)
    {
        SCOPED_TRACE(step.name);
        standin::DeleteObjects(Words{5}, false);
        if (step.device != nullptr)
        {
            Put(Device(kBlt, 5, step.device));
        }
        Announced();
        Restart();
        FailSteps(kMapping, step.faults);
        standin::SetFault("ZOILListChildOIDByType", 0, step.unlisted);
        EXPECT_EQ(ObjTypeBasedNCObjects(), step.result);
        EXPECT_EQ(Calls(), step.calls);
        EXPECT_EQ(Names(), step.rows);
        if (step.unlisted)
        {
            EXPECT_EQ(Announced(), Lines{});
        }
    }
}

// They are compared with one copy, and the later one hides the earlier's
// failure.
TEST_F(TypeReload, LetsTwoObjectsReplaceEachOther)
{
    Put(Device(kBlt, 5, "a"));
    Put(Device(kBlt, 6, "b"));
    // The second's row can't be deleted, as there is none yet.
    EXPECT_EQ(ObjTypeBasedNCObjects(), -1);
    EXPECT_EQ(Calls(), (Lines{"Create 5", "Delete 6", "Create 6"}));
    for (int pass = 0; pass < 2; ++pass)
    {
        Restart();
        EXPECT_EQ(ObjTypeBasedNCObjects(), 0);
        EXPECT_EQ(Calls(),
                  (Lines{"Delete 5", "Create 5", "Delete 6", "Create 6"}));
    }
    // The first is gone when it is fetched: the copy goes, and its row, which
    // is the second's.
    Restart();
    standin::SetFault("ZOILGetObjByOID", 0, 1);
    EXPECT_EQ(ObjTypeBasedNCObjects(), 0);
    EXPECT_EQ(Calls(), Lines{"Create 6"});
    EXPECT_EQ(Names(), (Lines{"5|a", "6|b"}));
}

// Its size is kept in 16 bits, so that it differs from its own copy.
TEST_F(TypeReload, ReplacesHugeObjectsEachTime)
{
    Bytes huge = Device(kUsb, 5, "a");
    huge.resize(0x10000 + 40);
    Put(With(huge, kSizeWord, 0x10000 + 40));
    EXPECT_EQ(ObjTypeBasedNCObjects(), 0);
    EXPECT_EQ(ObjTypeBasedNCObjects(), 0);
    EXPECT_EQ(Calls(), (Lines{"Create 5", "Delete 5", "Create 5"}));
    EXPECT_EQ(CountLog("Data size mismatch. Recreate entry.\n"), 1);
}

TEST_F(TypeReload, GivesUp)
{
    Put(Device(kBlt, 5, "a"));
    Put(Device(kBlt, 7, "b"));
    Put(Device(kUsb, 6, "u"));
    const uint64_t lists = standin::CallCount("ZOILListChildOIDByType");
    {
        const OutOfMemoryAt here("No previous record");
        EXPECT_EQ(ObjTypeBasedNCObjects(), 272);
    }
    // Neither the second object nor the second type is reached.
    EXPECT_EQ(standin::CallCount("ZOILGetObjByOID"), 1U);
    EXPECT_EQ(standin::CallCount("ZOILListChildOIDByType") - lists, 1U);
    // An object that can't be read is tried again as it is.
    ForgetTypes();
    Put(Broken(Device(kUsb, 6, "u"), 0x18));
    EXPECT_EQ(ObjTypeBasedNCObjects(), -1);
    EXPECT_EQ(Calls(), Lines(100, "Create 6"));
    EXPECT_EQ(CountLog(kInvalid), 100);
    EXPECT_EQ(CountLog(kUsedUp), 1);
    EXPECT_EQ(SleepCount(), 0);
}

TEST_F(TypeReload, CountsAFailedRemovalAsDone)
{
    MakeRow(Device(kBlt, 0xFFFFFFFE, "a"));
    Restart(3);
    FailPrepares("WHERE Oid", SQLITE_ERROR, 1);
    EXPECT_EQ(DeleteNCObjsBasedOnOID(0xFFFFFFFE), SQLITE_ERROR);
    FailSteps("WHERE Oid", SQLITE_CONSTRAINT, 1);
    EXPECT_EQ(DeleteNCObjsBasedOnOID(0xFFFFFFFE), 0);
    EXPECT_EQ(Names().size(), 1U);
    EXPECT_EQ(DeleteNCObjsBasedOnOID(0xFFFFFFFE), 0);
    EXPECT_EQ(Names(), Lines{});
    EXPECT_EQ(LogLines().back(), "DeleteNCObjsBasedOnOID: Entry for -2 could "
                                 "not deleted. Error: -1");
}

} // namespace
} // namespace qdb::test

// The auditor: silent about what the service writes, and exact about anything
// else.

#include "events/dispatch.h"
#include "objects/catalogue.h"
#include "reconcile/population.h"
#include "standin/commands.h"
#include "tests/support/db_fixture.h"
#include "tests/support/event_records.h"
#include "tests/support/row_values.h"
#include "tools/audit/audit.h"
#include "tools/audit/expected.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

namespace qdb::test
{
namespace
{

using audit::Content;

constexpr uint16_t kStatus = 0x1001;
constexpr uint16_t kDirtyList = 3;
constexpr uint32_t kParent = 0x500;
constexpr uint32_t kOtherParent = 0x501;
constexpr uint32_t kGoneParent = 0x502;      // never exists
constexpr uint32_t kFirstOfAll = 0x7FFFFFF0; // some are stored negative
constexpr uint32_t kFirstDamaged = 0xA0000000;

Content Managers()
{
    const JsonPtr request(json_pack("{s:s}", "op", "dump"));
    return audit::ParseContent(standin::Execute(request.get()).get());
}

// What an audit prints.
Lines Printed(const audit::Report &report)
{
    Lines lines;
    for (const auto &object : report.unstorable)
    {
        lines.push_back(Print(object));
    }
    for (const auto &difference : report.differences)
    {
        lines.push_back(Print(difference));
    }
    lines.push_back(Summary(report));
    return lines;
}

void PutChild(uint16_t type, uint32_t oid, json_t *values,
              std::vector<uint32_t> parents)
{
    standin::ObjectSpec spec;
    spec.type = type;
    spec.oid = oid;
    spec.values = values;
    spec.parents = std::move(parents);
    EXPECT_EQ(standin::CreateObject(spec, false), "");
}

class AuditTest : public DbTest
{
  protected:
    AuditTest()
    {
        standin::SetLog(0, nullptr);
    }

    // An object, or attribute, for each row of the catalogue.
    static void FillAll()
    {
        PutObject(kStatus, kParent);
        PutObject(kStatus, kOtherParent);
        uint32_t oid = kFirstOfAll;
        for (const ObjTypeRow &row : ObjectTypeTable)
        {
            const JsonPtr values = ValuesFor(row, ValueSet::First);
            if (!IsConfigType(row.objType))
            {
                PutChild(row.objType, oid++, values.get(),
                         {kParent, kGoneParent, kOtherParent});
                continue;
            }
            constexpr const char *kInterfaces[] = {
                "CfgIntAttribute", "CfgStrAttribute", "CfgEnumAttribute",
                "CfgPasswdAttribute"};
            json_object_del(values.get(), "Key");
            EXPECT_EQ(
                standin::PutAttribute(kInterfaces[row.objType - 0x4051],
                                      std::string("A.1#B.1#") + row.suffix,
                                      values.get(), oid++),
                "");
        }
    }

    // Copies of all objects, cut short or with some bytes replaced.
    static void FillDamaged()
    {
        std::mt19937 random(1);
        uint32_t oid = kFirstDamaged;
        const std::vector<uint32_t> whole = standin::ObjectIds();
        for (int i = 0; i < 5; ++i)
        {
            for (const uint32_t from : whole)
            {
                Bytes bytes = standin::ObjectBytes(from);
                const auto size = static_cast<uint32_t>(bytes.size());
                const auto claimed = static_cast<uint32_t>(
                    i < 2 ? random() % (size + 1) : size + random() % 2);
                std::memcpy(bytes.data(), &claimed, sizeof(claimed));
                std::memcpy(bytes.data() + 4, &oid, sizeof(oid));
                for (int n = 0; i >= 2 && n < 6; ++n)
                {
                    constexpr uint8_t kBytes[] = {0,   1,    2,   7,    '/',
                                                  '4', 0x10, 128, 0xF0, 0xFF};
                    const size_t at = 16 + random() % (size - 16);
                    const size_t run =
                        std::min<size_t>(size - at, size_t{1} << random() % 4);
                    std::memset(bytes.data() + at,
                                kBytes[random() % std::size(kBytes)], run);
                }
                EXPECT_EQ(standin::PutRawObject(bytes, {}), "");
                ++oid;
            }
        }
    }

    // What chance hardly finds: flags above a dependency list's offset, and an
    // address of no characters behind its marker.
    static void FillOdd()
    {
        for (const uint32_t oid : standin::ObjectIds())
        {
            Bytes bytes = standin::ObjectBytes(oid);
            if (HeaderOf(bytes)->objType == 0x746)
            {
                bytes[0x4D] |= 0x10;
            }
            const std::string marker = "/4=198";
            const auto at = std::ranges::search(bytes, marker).begin();
            if (HeaderOf(bytes)->objType == 0x1200 && bytes.end() - at > 3)
            {
                at[3] = 0;
            }
            EXPECT_EQ(standin::PutRawObject(bytes, {}), "");
        }
    }

    // A copy of the database, in which more than the service's own statements
    // would let happen has happened.
    ConnectionPtr Copy(const std::string &damage = "")
    {
        const std::string path = mirror_.Root().Path() + "/copy.db";
        std::filesystem::copy_file(
            mirror_.Root().Database(), path,
            std::filesystem::copy_options::overwrite_existing);
        sqlite3 *opened = nullptr;
        EXPECT_EQ(sqlite3_open(path.c_str(), &opened), SQLITE_OK);
        EXPECT_EQ(
            sqlite3_exec(opened, damage.c_str(), nullptr, nullptr, nullptr),
            SQLITE_OK)
            << sqlite3_errmsg(opened);
        return ConnectionPtr(opened);
    }

    audit::Report Audit(const Content &content, const std::string &damage = "")
    {
        return Compare(content, audit::ReadSnapshot(Copy(damage).get()));
    }
};

TEST_F(AuditTest, FindsNothingInWhatTheServiceWrites)
{
    FillAll();
    EXPECT_EQ(OnLoadObjectsCreation(), 0);
    EXPECT_EQ(Printed(Audit(Managers())),
              (Lines{"0 differences in 163 objects"}));

    uint32_t oid = kFirstOfAll;
    Words changed;
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        if (!IsConfigType(row.objType))
        {
            const JsonPtr values = ValuesFor(row, ValueSet::Second);
            EXPECT_EQ(standin::SetObject(oid, values.get(), false), "");
            changed.push_back(oid);
        }
        ++oid;
    }
    EXPECT_EQ(ObjectNotification(EventOf(test::List(kDirtyList, changed)),
                                 kDirtyList),
              0);
    EXPECT_EQ(Printed(Audit(Managers())),
              (Lines{"0x7FFFFFF2 (0x1200) creation column "
                     "TblOSLogicalNetworkIntfObj.RootObjectKey: expected "
                     "\"b26\", found \"a26\"",
                     "1 difference in 163 objects"}));
}

TEST_F(AuditTest, AgreesWithTheServiceAboutDamagedObjects)
{
    FillAll();
    FillOdd();
    FillDamaged();
    OnLoadObjectsCreation();
    const audit::Report report = Audit(Managers());
    EXPECT_EQ(Printed({.compared = report.compared,
                       .differences = report.differences,
                       .unstorable = {}}),
              (Lines{"0 differences in " + std::to_string(report.compared) +
                     " objects"}));
    EXPECT_GT(report.unstorable.size(), 100u); // of 815 damaged ones
    for (const audit::Unstorable &object : report.unstorable)
    {
        EXPECT_EQ(
            mirror_.Value("SELECT count(*) FROM ActiveOIDMapping WHERE OID = " +
                          std::to_string(object.oid)),
            "0")
            << Print(object);
    }
}

audit::Object &At(Content &content, uint32_t oid)
{
    return *std::ranges::find(content.objects, oid, &audit::Object::oid);
}

void Vanish(Content &content, uint32_t oid)
{
    std::erase_if(content.objects,
                  [oid](const audit::Object &object)
                  {
                      return object.oid == oid;
                  });
}

constexpr uint32_t kChild = 0x600; // of two parents and one that has gone
constexpr uint32_t kList = 0x80000601;
constexpr uint32_t kSlot = 0x602;
constexpr uint32_t kGpu = 0x603;
constexpr uint32_t kSetting = 0x604;
constexpr uint32_t kLost = 0x605; // whose first parent has gone
constexpr size_t kSlotKeyAt = 0x14;

struct DamageCase
{
    const char *name;
    std::string sql;
    void (*change)(Content &); // after the service has last looked
    Lines expected;            // without the summary
};

// clang-format off
const DamageCase kDamages[] = {
    {"nothing", "", nullptr, {}},
    {"a text of odd bytes",
     "UPDATE TblDMStatus_Child_Obj SET popName = '\"\xFF\n' WHERE OID = 0x600", nullptr,
     {"0x00000600 (0x1001) column TblDMStatus_Child_Obj.popName: expected \"up\", found \"\\\"\\xff\\x0a\""}},
    {"the same bytes of another kind",
     "UPDATE TblDMStatus_Child_Obj SET popName = x'7570' WHERE OID = 0x600", nullptr,
     {"0x00000600 (0x1001) column TblDMStatus_Child_Obj.popName: expected \"up\", found x'7570'"}},
    {"a real",
     "UPDATE TblGPUHealthObj SET DRAMUsage = NULL", nullptr,
     {"0x00000603 (0x221) column TblGPUHealthObj.DRAMUsage: expected 0.5, found NULL"}},
    {"a parent's key",
     "UPDATE TblDMStatus_Child_Obj SET ParentObjectKey = NULL WHERE OID IN (0x600, 0x605)", nullptr,
     {"0x00000600 (0x1001) creation column TblDMStatus_Child_Obj.ParentObjectKey: expected \"1001||Object.1280\", found NULL"}},
    {"raw data without its flag",
     "UPDATE TblStrAttribute SET CurrentValue = 'file', isRawData = 2", nullptr,
     {"0x00000604 (0x4052) column TblStrAttribute.CurrentValue: expected \"v\", found \"file\"",
      "0x00000604 (0x4052) column TblStrAttribute.isRawData: expected 0 or 1, found 2"}},
    {"a row is lost",
     "DELETE FROM TblGPUHealthObj", nullptr,
     {"0x00000603 (0x221) missing row TblGPUHealthObj: expected a row, found nothing"}},
    {"an OID without its sign",
     "UPDATE ActiveOIDMapping SET OID = 0x80000601 WHERE OID < 0", nullptr,
     {"0x80000601 (0x801) missing mapping ActiveOIDMapping: expected 2049, found nothing",
      "2147485185 (0x801) extra mapping ActiveOIDMapping: expected nothing, found 2049"}},
    {"elements",
     "UPDATE INTEGERARR_TblSoftwareInventoryMetaDataObject SET VAL = 6 WHERE ARR_INDEX = 1; DELETE FROM INTEGERARR_TblSoftwareInventoryMetaDataObject WHERE ARR_INDEX = 0; INSERT INTO INTEGERARR_TblSoftwareInventoryMetaDataObject VALUES (-2147482111, 'ObjTypeList', 2, 9)", nullptr,
     {"0x80000601 (0x801) missing element INTEGERARR_TblSoftwareInventoryMetaDataObject.ObjTypeList[0]: expected an element, found nothing",
      "0x80000601 (0x801) extra element INTEGERARR_TblSoftwareInventoryMetaDataObject.ObjTypeList[2]: expected nothing, found an element",
      "0x80000601 (0x801) element INTEGERARR_TblSoftwareInventoryMetaDataObject.ObjTypeList[1].VAL: expected -7, found 6"}},
    {"a swapped link",
     "UPDATE ParentChildMapping SET POID = 0x602 WHERE OID = 0x600 AND POID = 0x501", nullptr,
     {"0x00000600 (0x1001) missing link ParentChildMapping.POID: expected 1281, found nothing",
      "0x00000600 (0x1001) extra link ParentChildMapping.POID: expected nothing, found 1538"}},
    {"a link to a parent that has gone",
     "INSERT INTO ParentChildMapping VALUES (0x600, 0x502)", nullptr, {}},
    {"a row twice",
     "CREATE TABLE other AS SELECT * FROM TblGPUHealthObj; DROP TABLE TblGPUHealthObj; INSERT INTO other SELECT * FROM other; ALTER TABLE other RENAME TO TblGPUHealthObj", nullptr,
     {"0x00000603 (0x221) repeated row TblGPUHealthObj: expected one row, found more"}},
    {"an object goes in silence", "", [](Content &content) { Vanish(content, kOtherParent); Vanish(content, kSetting); Vanish(content, kList); },
     {"0x80000601 (0x801) extra mapping ActiveOIDMapping: expected nothing, found 2049",
      "0x80000601 (0x801) extra row TblSoftwareInventoryMetaDataObject: expected nothing, found a row",
      "0x80000601 (0x801) extra element INTEGERARR_TblSoftwareInventoryMetaDataObject.ObjTypeList[0]: expected nothing, found an element",
      "0x80000601 (0x801) extra element INTEGERARR_TblSoftwareInventoryMetaDataObject.ObjTypeList[1]: expected nothing, found an element",
      "0x80000601 (0x801) extra link ParentChildMapping.POID: expected nothing, found 1280",
      "0x00000501 (0x1001) extra mapping ActiveOIDMapping: expected nothing, found 4097",
      "0x00000501 (0x1001) extra row TblDMStatus_Child_Obj: expected nothing, found a row",
      "0x00000604 (0x4052) extra mapping ActiveOIDMapping: expected nothing, found 16466",
      "0x00000604 (0x4052) extra row TblStrAttribute: expected nothing, found a row"}},
    {"an object can be stored no longer",
     "UPDATE TblEmptySlotObj SET slotNum = 8",
     [](Content &content) { At(content, kSlot).bytes[kSlotKeyAt + 1] = 0x7F; },
     {"0x00000602 (0x45) not storable TblEmptySlotObj.Key"}},
};
// clang-format on

class DamageTest : public AuditTest
{
  protected:
    DamageTest()
    {
        PutObject(kStatus, kParent);
        PutObject(kStatus, kOtherParent);
        const auto put = [](uint16_t type, uint32_t oid, const char *values,
                            const std::vector<uint32_t> &parents)
        {
            const JsonPtr parsed(json_loads(values, 0, nullptr));
            PutChild(type, oid, parsed.get(), parents);
        };
        put(kStatus, kChild, R"({"popName": "up", "popStatus": 7})",
            {kParent, kGoneParent, kOtherParent});
        put(0x801, kList, R"({"ObjTypeList": [5, 4294967289]})", {kParent});
        put(0x45, kSlot, R"({"slotType": 1})", {});
        put(0x221, kGpu, R"({"DRAMUsage": 0.5})", {});
        put(kStatus, kLost, "{}", {kGoneParent, kParent});
        const JsonPtr value(json_pack("{s:s}", "CurrentValue", "v"));
        EXPECT_EQ(standin::PutAttribute("CfgStrAttribute", "A.1#B.1#S",
                                        value.get(), kSetting),
                  "");
        OnLoadObjectsCreation();
    }
};

TEST_F(DamageTest, IsNamedInEveryPlace)
{
    for (const DamageCase &damage : kDamages)
    {
        SCOPED_TRACE(damage.name);
        Content content = Managers();
        if (damage.change != nullptr)
        {
            damage.change(content);
        }
        const audit::Report report = Audit(content, damage.sql);
        Lines expected = damage.expected;
        expected.push_back(Summary(report));
        EXPECT_EQ(Printed(report), expected);
    }
}

// A change that is on its way differs for one look or two, and what stays wrong
// may go on changing.
TEST_F(DamageTest, IsReportedOnceItHasLasted)
{
    const ConnectionPtr copy = Copy();
    int look = 0;
    std::vector<int> pauses;
    const auto fetch = [&]
    {
        Content content = Managers();
        ++look;
        At(content, kChild).bytes[10] = static_cast<uint8_t>(look);
        At(content, kSlot).bytes[10] = look == 2 ? 0 : 1;
        At(content, kGpu).bytes[10] = look == 1 ? 0 : 1;
        return content;
    };
    const auto pause = [&](int after)
    {
        pauses.push_back(after);
    };
    EXPECT_EQ(Printed(audit::Looks(3, fetch, copy.get(), pause)),
              (Lines{"0x00000600 (0x1001) column TblDMStatus_Child_Obj."
                     "DOH_ObjStatus: expected 3, found 0",
                     "1 difference in 8 objects"}));
    EXPECT_EQ(pauses, (std::vector<int>{1, 2}));
    EXPECT_EQ(Printed(audit::Looks(3, Managers, copy.get(), pause)),
              (Lines{"0 differences in 8 objects"}));
    EXPECT_EQ(pauses.size(), 2u);
    EXPECT_THROW(audit::ReadSnapshot(Copy("DROP TABLE TblProbeObj").get()),
                 audit::Unreadable);
}

} // namespace
} // namespace qdb::test

// The auditor: exact about what differs, and when. That it is silent about what
// the service writes is the subject of every_row_test.cpp.

#include "reconcile/population.h"
#include "tests/support/audited.h"

#include <algorithm>
#include <filesystem>

namespace qdb::test
{
namespace
{

using audit::Content;

constexpr uint16_t kStatus = 0x1001;
constexpr uint32_t kParent = 0x500;
constexpr uint32_t kOtherParent = 0x501;
constexpr uint32_t kGoneParent = 0x502; // never exists

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

class Auditor : public DbTest
{
  protected:
    Auditor()
    {
        standin::SetLog(0, nullptr);
        PutObject(kStatus, kParent);
        PutObject(kStatus, kOtherParent);
        const auto put = [](uint16_t type, uint32_t oid, const char *values,
                            const std::vector<uint32_t> &parents)
        {
            const JsonPtr parsed(json_loads(values, 0, nullptr));
            standin::ObjectSpec spec = {type, oid, parents, parsed.get()};
            EXPECT_EQ(standin::CreateObject(spec, false), "");
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

    // A copy of the database, in which more than the service's own statements
    // would let happen has happened.
    std::string Copy(const std::string &damage = "")
    {
        const std::string path = mirror_.Root().Path() + "/copy.db";
        std::filesystem::copy_file(
            mirror_.Root().Database(), path,
            std::filesystem::copy_options::overwrite_existing);
        const ConnectionPtr copy = OpenDatabase(path);
        EXPECT_EQ(
            sqlite3_exec(copy.get(), damage.c_str(), nullptr, nullptr, nullptr),
            SQLITE_OK)
            << sqlite3_errmsg(copy.get());
        return path;
    }
};

TEST_F(Auditor, NamesDamageInEveryPlace)
{
    for (const DamageCase &damage : kDamages)
    {
        SCOPED_TRACE(damage.name);
        Content content = Managers();
        if (damage.change != nullptr)
        {
            damage.change(content);
        }
        const audit::Report report = Audit(Copy(damage.sql), content);
        Lines expected = damage.expected;
        expected.push_back(Summary(report));
        EXPECT_EQ(Printed(report), expected);
    }
}

// A change that is on its way differs for one look or two, and what stays wrong
// may go on changing.
TEST_F(Auditor, ReportsWhatLasts)
{
    const ConnectionPtr copy = OpenDatabase(Copy());
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
    EXPECT_THROW(Audit(Copy("DROP TABLE TblProbeObj")), audit::Unreadable);
}

} // namespace
} // namespace qdb::test

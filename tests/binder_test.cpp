// From an object's bytes to its row, at the bounds: of fields, of joined lists
// and arrays, and of what tells the row. What lies between them is compared for
// every column in every_row_test.cpp.
//
// Objects are written here byte by byte, apart from the layouts that the
// service and the stand-in share. Each lies in a block of exactly its size, so
// that a sanitizer sees any byte that is read outside of it. The auditor has to
// see every case as it is given here.

#include "objects/predicates.h"
#include "tests/support/audited.h"
#include "tests/support/config_bytes.h"
#include "tests/support/handler_fixture.h"

#include <cmath>
#include <span>

namespace qdb::test
{
namespace
{

// Bytes at a place of an object.
struct Piece
{
    size_t at;
    std::string bytes;
};
using Pieces = std::vector<Piece>;

template <typename T>
Piece Put(size_t at, T value)
{
    std::string bytes(sizeof(value), '\0');
    std::memcpy(bytes.data(), &value, sizeof(value));
    return {at, bytes};
}
// clang-format off
Piece Byte(size_t at, unsigned value) { return Put(at, static_cast<uint8_t>(value)); }
Piece Word(size_t at, unsigned value) { return Put(at, static_cast<uint16_t>(value)); }
Piece Dword(size_t at, uint32_t value) { return Put(at, value); }
Piece Qword(size_t at, uint64_t value) { return Put(at, value); }
Piece Chars(size_t at, const std::string &text) { return {at, text + '\0'}; }
Piece Raw(size_t at, const std::string &bytes) { return {at, bytes}; }

// Enum cells of three and of one character, each with its NUL.
Pieces EnumObject(unsigned count, unsigned valuesAt, unsigned shownAt = 0)
{
    return {Word(0x46, count), Word(0x48, 3), Word(0x4A, 1), Word(0x50, valuesAt), Word(0x52, shownAt),
            Raw(0x60, std::string("on\0\0abc\0a\0\0\0", 12)), Raw(0x70, std::string("A\0B\0C\0", 6))};
}

// A setup enumeration whose dependencies are at that place.
Pieces Dependent(unsigned offset, size_t at) { return {Word(0x4C, offset), Chars(at, "dep")}; }

// An address list at byte 0x200; `countAt` and the offset word behind it.
Pieces ListObject(size_t countAt, unsigned count, const std::string &texts)
{
    return {Dword(countAt, count), Dword(countAt + 4, 0x200 - 0x1C), Raw(0x200, texts)};
}
constexpr size_t kGateway = 0x1DB;
constexpr size_t kDns = 0x1E3;
const std::string kMixed("/6:2001:db8::1\0eth0/4 192.0.2.1\0/4:192.0.2.2\0/6:fe80::1\0", 56);
const std::string kPoor("192.0.2.9\0/4\0/4:10.0.0.1\0/5:x\0/4:\0", 35);

const struct
{
    const char *name;
    uint16_t type;
    size_t size;
    Pieces pieces;        // cut off at the object's end
    const char *query;    // of the object's row
    const char *expected; // NULL: the object is refused
} kCases[] = {
    {"one byte before the next word", 0x40, 0x40, {Byte(0x21, 0x7B), Byte(0x22, 0xFF), Byte(0x23, 0xFF)}, "iFan FROM TblFanExtObj", "123"},
    {"signed 32, the object's last bytes", 0xE1, 0xBA, {Dword(0xB6, 0xFFFFFFFE)}, "UpdateTime FROM TblMemoryInfo", "-2"},
    {"signed 32, cut by the object's end", 0xE1, 0xB9, {Dword(0xB6, 0xFFFFFFFE)}, "UpdateTime FROM TblMemoryInfo", "NULL"},
    {"64 bits, the object's last bytes", 0xE1, 0xF2, {Qword(0xEA, 0x8000000000000001)}, "LogicalSize FROM TblMemoryInfo", "-9223372036854775807"},
    {"64 bits, cut by the object's end", 0xE1, 0xF1, {Qword(0xEA, ~0ULL)}, "LogicalSize FROM TblMemoryInfo", "NULL"},
    {"bits in the object's last bytes", 0x31B, 0xF8, {Dword(0x20, 0x40), Word(0xF6, 0xABCD)}, "smartData_DOT_ErrorInfoLogRecord_DOT_StatusField_DOT_Status FROM TblRAID_PDSmartData_NVMe", "21990"},
    {"bits cut by the object's end", 0x31B, 0xF7, {Dword(0x20, 0x40), Word(0xF6, 0xABCD)}, "smartData_DOT_ErrorInfoLogRecord_DOT_StatusField_DOT_Status FROM TblRAID_PDSmartData_NVMe", "NULL"},
    {"float, widened exactly", 0xD40, 0x60, {Put(0x2C, 0.1F)}, "sensorReading = 0.100000001490116119384765625 FROM Tblthp_thermal_sensor", "1"},
    {"float NaN", 0xD40, 0x60, {Put(0x2C, std::nanf(""))}, "sensorReading FROM Tblthp_thermal_sensor", "NULL"},
    {"float infinity", 0xD40, 0x60, {Put(0x2C, HUGE_VALF)}, "sensorReading FROM Tblthp_thermal_sensor", "NULL"},
    {"double infinity", 0x221, 0x110, {Put(0x89, -HUGE_VAL)}, "DRAMUsage FROM TblGPUHealthObj", "NULL"},

    {"inline text up to the object's end", 0x1001, 0x2F, {Raw(0x2C, "abcdef")}, "key FROM TblDMStatus_Child_Obj", "abc"},
    {"inline text behind the object's end", 0x1001, 0x2C, {}, "key FROM TblDMStatus_Child_Obj", "NULL"},
    {"offset 5000", 0x1001, 5010, {Dword(0x14, 5000), Chars(5000, "far")}, "key_STR FROM TblDMStatus_Child_Obj", "far"},
    {"offset 5001", 0x1001, 5010, {Dword(0x14, 5001), Chars(5001, "far")}, "key_STR FROM TblDMStatus_Child_Obj", nullptr},
    {"offset of the last byte, a NUL", 0x1001, 0x60, {Dword(0x14, 0x5F)}, "quote(key_STR) FROM TblDMStatus_Child_Obj", "''"},
    {"offset of the object's end", 0x1001, 0x60, {Dword(0x14, 0x60)}, "key_STR FROM TblDMStatus_Child_Obj", nullptr},
    {"offset text without NUL", 0x1001, 0x60, {Dword(0x14, 0x5E), Raw(0x5E, "xy")}, "key_STR FROM TblDMStatus_Child_Obj", nullptr},
    {"offset cut by the object's end", 0xE1, 0x1B, {Dword(0x18, 0x14)}, "fqdd FROM TblMemoryInfo", "NULL"},
    {"smallest object", 0xE1, 16, {}, "fqdd FROM TblMemoryInfo", "NULL"},
    {"smaller", 0xE1, 15, {}, "fqdd FROM TblMemoryInfo", nullptr},
    {"16-bit offset before a full word", 0x760, 0x60, {Word(0x25, 0x40), Word(0x27, 0x48), Chars(0x40, "left"), Chars(0x48, "right")}, "ChassisId || PortId FROM TblNic_Connection_View_Obj", "leftright"},
    {"16-bit offset 5001", 0x760, 5010, {Word(0x25, 5001)}, "ChassisId FROM TblNic_Connection_View_Obj", nullptr},
    {"16 bits like the sister tables", 0x706, 0x80, {Word(0x36, 0x60), Word(0x38, 0xFFFF), Chars(0x60, "group")}, "metadata_DOT_groupDisplayName FROM TblHII_Enum_Obj", "group"},
    {"pending value", 0x4053, 0x80, {Dword(0x5C, 0x100), Dword(0x2C, 0x70), Chars(0x70, "On")}, "PendingValue FROM TblEnumAttribute", "On"},
    {"pending value that isn't there, invalid", 0x4053, 0x80, {Dword(0x2C, 5001)}, "PendingValue FROM TblEnumAttribute", "NULL"},
    {"pending value, invalid", 0x4053, 0x80, {Dword(0x5C, 1), Dword(0x2C, 5001)}, "PendingValue FROM TblEnumAttribute", nullptr},

    {"values", 0x706, 0x80, EnumObject(3, 0x60), "possible_value_ FROM TblHII_Enum_Obj", "on#$#abc#$#a"},
    {"more values than the object holds", 0x706, 0x6C, EnumObject(0xFFFF, 0x60), "possible_value_ FROM TblHII_Enum_Obj", "on#$#abc#$#a"},
    {"list behind the object", 0x706, 0x80, EnumObject(2, 0x80), "possible_value_ FROM TblHII_Enum_Obj", "NULL"},
    {"list offset 5001", 0x706, 0x80, EnumObject(2, 5001), "possible_value_ FROM TblHII_Enum_Obj", nullptr},
    {"shown list offset 5001", 0x706, 0x80, EnumObject(2, 0x60, 5001), "display_value_ FROM TblHII_Enum_Obj", nullptr},
    {"only the first", 0x1200, 0x300, ListObject(kDns, 1, kMixed), "DNSServer FROM TblOSLogicalNetworkIntfObj", "@@@2001:db8::1"},
    {"IPv4's marker comes first", 0x1200, 0x300, ListObject(kDns, 1, "/6:1/4:2"), "DNSServer FROM TblOSLogicalNetworkIntfObj", "2"},
    {"more addresses than the object holds", 0x1200, 0x200 + 56, ListObject(kDns, 0xFFFFFFFF, kMixed), "DNSServer FROM TblOSLogicalNetworkIntfObj", "192.0.2.1#$#192.0.2.2@@@2001:db8::1#$#fe80::1"},
    {"last address without NUL", 0x1200, 0x200 + 55, ListObject(kDns, 4, kMixed), "DNSServer FROM TblOSLogicalNetworkIntfObj", "192.0.2.1#$#192.0.2.2@@@2001:db8::1"},
    {"no address behind the marker", 0x1200, 0x300, ListObject(kDns, 5, kPoor), "DNSServer FROM TblOSLogicalNetworkIntfObj", "10.0.0.1#$#"},
    {"no marker", 0x1200, 0x300, ListObject(kGateway, 2, kPoor), "quote(GatewayAddress) FROM TblOSLogicalNetworkIntfObj", "''"},
    {"address list behind the object", 0x1200, 0x200, ListObject(kGateway, 1, ""), "GatewayAddress FROM TblOSLogicalNetworkIntfObj", "NULL"},
    {"address list offset 5001", 0x1200, 0x300, {Dword(kDns, 1), Dword(kDns + 4, 5001)}, "DNSServer FROM TblOSLogicalNetworkIntfObj", nullptr},
    {"no address list", 0x1200, 0x300, {Dword(kDns, 1)}, "DNSServer FROM TblOSLogicalNetworkIntfObj", "NULL"},

    {"no elements", 0x801, 0x40, {Dword(0x14, 5)}, "group_concat(VAL) FROM INTEGERARR_TblSoftwareInventoryMetaDataObject", "NULL"},
    {"more elements than the object holds", 0x801, 0x14 + 11, {Dword(0x10, 0xFFFFFFFF), Dword(0x14, 5), Dword(0x18, 0x80000000), Dword(0x1C, 9)}, "group_concat(PROP || ARR_INDEX || VAL) FROM INTEGERARR_TblSoftwareInventoryMetaDataObject", "ObjTypeList05,ObjTypeList1-2147483648"},
    {"signed records", 0x41, 0x1A0, {Raw(0x104 + 153, "\4\xFB\6")}, "group_concat(avgValue || peakValue || warnThreshold) FILTER (WHERE avgValue != 0) FROM TemperatureDataARR_TblThermalHistoryObj", "4-56"},
    {"packed records", 0xD2, 0x1C8, {Word(0x151, 1), Qword(0x153, 2), Qword(0x15B, 3), Qword(0x163, 4), Word(0x16B, 5), Byte(0x16D, 6)}, "group_concat(size || nonVolatileSize || volatileSize || cacheSize || speed || type) FROM HbmInfoARR_TblDevProcessor", "000000,123456,000000,000000,000000"},
    {"last record one byte short", 0xD2, 0x1C4, {}, "count(*) FROM HbmInfoARR_TblDevProcessor", "4"},
    {"IPv4", 0x1200, 0x27F, {Dword(0x1CB, 2), Dword(0x1CF, 0x200 - 0x1C), Chars(0x200, "10.0.0.1"), Chars(0x220, "255.0.0.0"), Chars(0x240, "10.0.0.2")}, "group_concat(ipAddr || subnetMask) FROM NetIntfIPv4InfoARR_TblOSLogicalNetworkIntfObj", "10.0.0.1255.0.0.0"},
    {"IPv6", 0x1200, 0x300, {Dword(0x1D3, 1), Dword(0x1D7, 0x200 - 0x1C), Chars(0x200, "fe80::1"), Dword(0x240, 64), Byte(0x244, 32)}, "group_concat(ipAddr || prefixLen || scope) FROM NetIntfIPv6InfoARR_TblOSLogicalNetworkIntfObj", "fe80::16432"},
    {"records far outside", 0x1200, 0x300, {Dword(0x1D3, 0xFFFFFFFF), Dword(0x1D7, 0xFFFFFFF0)}, "count(*) FROM NetIntfIPv6InfoARR_TblOSLogicalNetworkIntfObj", "0"},

    {"PCIe", 0x31B, 0x780, {Dword(0x20, 0x40)}, "count(*) FROM TblRAID_PDSmartData_NVMe", "1"},
    {"NVMe", 0x31B, 0x780, {Dword(0x20, 0x100), Dword(0x748, 2)}, "count(*) FROM TblRAID_PDSmartData_NVMe", "1"},
    {"SAS SSD", 0x31B, 0x780, {Dword(0x20, 0x10), Dword(0x748, 6)}, "count(*) FROM TblRAID_PDSmartData_SAS_SATA", "1"},
    {"SATA hard disk", 0x31B, 0x780, {Dword(0x20, 0x20), Dword(0x748, 0xFFFFFFFD)}, "count(*) FROM ActiveOIDMapping", "0"},
    {"other protocol", 0x31B, 0x780, {Dword(0x20, 0x80), Dword(0x748, 2)}, "count(*) FROM ActiveOIDMapping", "0"},
    {"attributes outside", 0x31B, 0x74B, {Dword(0x20, 0x10), Dword(0x748, 2)}, "count(*) FROM ActiveOIDMapping", "0"},
    {"RAID slot", 0x45, 0x40, {Word(0x1C, 7), Word(0x1E, 1)}, "count(*) FROM TblRAID_EmptySlot", "1"},
    {"other slot", 0x45, 0x40, {Word(0x1C, 6)}, "count(*) FROM TblEmptySlotObj", "1"},
    {"slot kind outside", 0x45, 0x1D, {Word(0x1C, 7)}, "count(*) FROM TblEmptySlotObj", "1"},
    {"greatest dependency offset", 0x706, 0x1000, Dependent(0xFA0, 0xFA0), "metadata_DOT_attrDependencies FROM TblHII_Enum_Obj", "dep"},
    {"dependency offset with flags", 0x706, 0x1000, Dependent(0x1FA1, 0xFA1), "metadata_DOT_attrDependencies FROM TblHII_Enum_Obj", "dep"},
    {"all flags", 0x726, 0x100, Dependent(0xF0A0, 0xA0), "metadata_DOT_attrDependencies FROM TblHII_Enum_Obj", "dep"},
    {"flags", 0x746, 0x100, Dependent(0x10A0, 0xA0), "metadata_DOT_attrDependencies FROM TblHII_Enum_Obj", "dep"},
    {"flags", 0x786, 0x100, Dependent(0x10A0, 0xA0), "metadata_DOT_attrDependencies FROM TblHII_Enum_Obj", "dep"},
    {"half a dependency offset", 0x706, 0x4D, Dependent(0x1FA1, 0), "metadata_DOT_attrDependencies FROM TblHII_Enum_Obj", "NULL"},
};
// clang-format on

// The block is never smaller than the header that whoever hands out objects
// fills.
Bytes ObjectOf(uint16_t type, uint32_t oid, size_t size, Pieces pieces)
{
    Bytes object(std::max(size, size_t{16}));
    pieces.push_back(Dword(0, static_cast<uint32_t>(size)));
    pieces.push_back(Dword(4, oid));
    pieces.push_back(Word(8, type));
    for (const Piece &piece : pieces)
    {
        for (size_t i = piece.at;
             i < std::min(object.size(), piece.at + piece.bytes.size()); ++i)
        {
            object[i] = static_cast<uint8_t>(piece.bytes[i - piece.at]);
        }
    }
    return object;
}

// All in one mirror, so that each meets the statements that the one before has
// left.
TEST(Binder, KeepsToTheBounds)
{
    const Mirror mirror;
    audit::Content content;
    size_t refused = 0;
    for (const auto &test : kCases)
    {
        SCOPED_TRACE(test.name);
        const auto oid = static_cast<uint32_t>(&test - kCases + 0x1234);
        Bytes object = ObjectOf(test.type, oid, test.size, test.pieces);
        content.objects.push_back({oid, test.type, "", object, {}, {}});
        Bytes group;
        if (IsConfigType(test.type))
        {
            group = Group("A.1#B.1");
            content.objects.back().group = "A.1#B.1";
        }
        auto *pDOH = reinterpret_cast<DataObjHeader *>(object.data());
        int status = 0;
        for (const ObjTypeRow &row : ObjectTypeTable)
        {
            if (row.objType == test.type && Applies(row, pDOH, nullptr))
            {
                status |= CreateObject(
                    row, pDOH, group.empty() ? nullptr : HeaderOf(group));
            }
        }
        EXPECT_EQ(status,
                  test.expected == nullptr ? ZO_STATUS_INVALID_VALUE : 0);
        refused += test.expected == nullptr ? 1 : 0;
        const std::string where = " WHERE OID = " + std::to_string(oid);
        EXPECT_EQ(mirror.Rows("SELECT " + std::string(test.query) + where),
                  test.expected == nullptr ? Lines{} : Lines{test.expected});
    }
    const audit::Report report = Audit(mirror.Root().Database(), content);
    EXPECT_EQ(report.unstorable.size(), refused);
    for (const audit::Difference &difference : report.differences)
    {
        ADD_FAILURE() << Print(difference);
    }
}

} // namespace
} // namespace qdb::test

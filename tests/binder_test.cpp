// From an object's bytes to the columns of its row, at the bounds: of fields,
// of joined lists and arrays, of what predicates look at, and of objects that
// end too early. What lies between them the auditor compares for every column.
//
// Objects are written here byte by byte, apart from the layouts that the
// service and the stand-in share. Each lies in a block of exactly its size, so
// that a sanitizer sees any byte that is read outside of it.

#include "objects/handlers.h"
#include "objects/predicates.h"
#include "tests/support/log_capture.h"
#include "tests/support/mirror.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <span>

namespace qdb::test
{
namespace
{

constexpr uint32_t kOid = 0x1234;
constexpr int kInvalidValue = 8216;

// Bytes at a place of an object.
struct Piece
{
    size_t at;
    std::string bytes;
};

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
// clang-format on

using Pieces = std::vector<Piece>;

// An object of `size` bytes; pieces are cut off at its end. The block is never
// smaller than the header that whoever hands out objects fills.
class Object
{
  public:
    Object(uint16_t type, uint32_t oid, size_t size, const Pieces &pieces)
        : bytes_(std::max(size, size_t{16}))
    {
        Store(Dword(0, static_cast<uint32_t>(size)));
        Store(Dword(4, oid));
        Store(Word(8, type));
        for (const Piece &piece : pieces)
        {
            Store(piece);
        }
    }

    DataObjHeader *Header()
    {
        return reinterpret_cast<DataObjHeader *>(bytes_.data());
    }

    uint16_t WordAt(size_t at) const
    {
        uint16_t word = 0;
        std::memcpy(&word, bytes_.data() + at, sizeof(word));
        return word;
    }

  private:
    void Store(const Piece &piece)
    {
        for (size_t i = 0; i < piece.bytes.size(); ++i)
        {
            if (piece.at + i < bytes_.size())
            {
                bytes_[piece.at + i] = static_cast<uint8_t>(piece.bytes[i]);
            }
        }
    }

    std::vector<uint8_t> bytes_;
};

struct FieldCase
{
    const char *name;
    uint16_t type;
    size_t size;
    Pieces pieces;
    const char *column;   // of the type's first row, or an expression
    const char *expected; // as an SQL literal; NULL: the object is refused
};

// Stores all cases in one mirror, so that each meets the statements that the
// one before has left.
void Check(std::span<const FieldCase> cases)
{
    const Mirror mirror;
    uint32_t oid = kOid;
    for (const FieldCase &test : cases)
    {
        SCOPED_TRACE(test.name);
        Object object(test.type, ++oid, test.size, test.pieces);
        const ObjTypeRow &row = *FindRow(test.type);
        const bool refused = test.expected == nullptr;
        EXPECT_EQ(CreateObject(row, object.Header(), nullptr),
                  refused ? kInvalidValue : 0);
        const std::string where = " WHERE OID = " + std::to_string(oid);
        const std::vector<std::string> none;
        EXPECT_EQ(mirror.Rows("SELECT quote(" + std::string(test.column) +
                              ") FROM " + row.table->name + where),
                  refused ? none : std::vector<std::string>{test.expected});
        EXPECT_EQ(mirror.Rows("SELECT 1 FROM ActiveOIDMapping" + where).size(),
                  refused ? 0U : 1U);
    }
}

// clang-format off
const FieldCase kFields[] = {
    {"signed 32, unaligned", 0xE1, 0x120, {Dword(0xB6, 0xFFFFFFFE)}, "UpdateTime", "-2"},
    {"64 bits, all", 0xE1, 0x120, {Qword(0xEA, ~0ULL)}, "LogicalSize", "-1"},
    {"one byte before the next word", 0x40, 0x40, {Byte(0x21, 0x7B), Byte(0x22, 0xFF), Byte(0x23, 0xFF)}, "iFan", "123"},
    {"signed 32, the object's last bytes", 0xE1, 0xBA, {Dword(0xB6, 0xFFFFFFFE)}, "UpdateTime", "-2"},
    {"signed 32, cut by the object's end", 0xE1, 0xB9, {Dword(0xB6, 0xFFFFFFFE)}, "UpdateTime", "NULL"},
    {"signed 32, before other bytes", 0xE1, 0x120, {Dword(0xB6, 0x7FFFFFFF), Raw(0xBA, "\xFF\xFF\xFF\xFF")}, "UpdateTime", "2147483647"},
    {"64 bits, the object's last bytes", 0xE1, 0xF2, {Qword(0xEA, 0x8000000000000001)}, "LogicalSize", "-9223372036854775807"},
    {"64 bits, cut by the object's end", 0xE1, 0xF1, {Qword(0xEA, ~0ULL)}, "LogicalSize", "NULL"},

    {"bits in the object's last bytes", 0x31B, 0xF8, {Word(0xF6, 0xABCD)}, "smartData_DOT_ErrorInfoLogRecord_DOT_StatusField_DOT_Status", "21990"},
    {"bits cut by the object's end", 0x31B, 0xF7, {Word(0xF6, 0xABCD)}, "smartData_DOT_ErrorInfoLogRecord_DOT_StatusField_DOT_Status", "NULL"},
    {"bits across two bytes", 0x31B, 0x800, {Word(0xF6, 0xABCD), Word(0xF8, 0xFFFF)}, "smartData_DOT_ErrorInfoLogRecord_DOT_StatusField_DOT_Status", "21990"},

    {"float", 0xD40, 0x60, {Put(0x2C, -2.25F)}, "sensorReading", "-2.25"},
    {"float, widened exactly", 0xD40, 0x60, {Put(0x2C, 0.1F)}, "sensorReading = 0.100000001490116119384765625", "1"},
    {"float NaN", 0xD40, 0x60, {Put(0x2C, std::nanf(""))}, "sensorReading", "NULL"},
    {"float infinity", 0xD40, 0x60, {Put(0x2C, HUGE_VALF)}, "sensorReading", "NULL"},
    {"double infinity", 0x221, 0x110, {Put(0x89, -HUGE_VAL)}, "DRAMUsage", "NULL"},

    {"inline text", 0x1001, 0x60, {Chars(0x2C, "\xC2\xB5 1")}, "key", "'\xC2\xB5 1'"},
    {"inline text up to the object's end", 0x1001, 0x2F, {Raw(0x2C, "abcdef")}, "key", "'abc'"},
    {"inline text behind the object's end", 0x1001, 0x2C, {}, "key", "NULL"},

    {"offset 5000", 0x1001, 5010, {Dword(0x14, 5000), Chars(5000, "far")}, "key_STR", "'far'"},
    {"offset 5001", 0x1001, 5010, {Dword(0x14, 5001), Chars(5001, "far")}, "key_STR", nullptr},
    {"offset of all ones", 0x1001, 0x60, {Dword(0x14, 0xFFFFFFFF)}, "key_STR", nullptr},
    {"offset of the last byte, a NUL", 0x1001, 0x60, {Dword(0x14, 0x5F)}, "key_STR", "''"},
    {"offset of the object's end", 0x1001, 0x60, {Dword(0x14, 0x60)}, "key_STR", nullptr},
    {"offset behind the object's end", 0x1001, 0x60, {Dword(0x14, 0x61)}, "key_STR", nullptr},
    {"offset text without NUL", 0x1001, 0x60, {Dword(0x14, 0x5E), Raw(0x5E, "xy")}, "key_STR", nullptr},

    {"16-bit offset before a full word", 0x760, 0x60, {Word(0x25, 0x40), Word(0x27, 0x48), Chars(0x40, "left"), Chars(0x48, "right")}, "ChassisId || PortId", "'leftright'"},
    {"16-bit offset before two bytes", 0x760, 0x60, {Word(0x27, 0x48), Byte(0x29, 4), Byte(0x2A, 7), Chars(0x48, "right")}, "PortId", "'right'"},
    {"16-bit offset 5001", 0x760, 5010, {Word(0x25, 5001)}, "ChassisId", nullptr},
    {"16 bits like the sister tables", 0x706, 0x80, {Word(0x36, 0x60), Word(0x38, 0xFFFF), Chars(0x60, "group")}, "metadata_DOT_groupDisplayName", "'group'"},

    {"pending value", 0x4053, 0x80, {Dword(0x5C, 0x100), Dword(0x2C, 0x70), Chars(0x70, "On")}, "PendingValue", "'On'"},
    {"pending value that isn't there", 0x4053, 0x80, {Dword(0x5C, 0), Dword(0x2C, 0x70), Chars(0x70, "On")}, "PendingValue", "NULL"},
    {"pending value that isn't there, invalid", 0x4053, 0x80, {Dword(0x2C, 5001)}, "PendingValue", "NULL"},
    {"pending value, invalid", 0x4053, 0x80, {Dword(0x5C, 1), Dword(0x2C, 5001)}, "PendingValue", nullptr},
    {"text from the body", 0x1200, 0x220, {Dword(0x1EF, 0x1E4), Chars(0x200, "team")}, "NicTeamInfo", "'team'"},
    {"root key", 0x1200, 0x220, {Dword(0x14, 0x200), Chars(0x200, "root")}, "RootObjectKey", "'root'"},
};
// clang-format on

TEST(Binder, KeepsToTheBoundsOfFields)
{
    Check(kFields);
}

// A text behind the fixed part is all there, or the object can't be read as it
// stands. Objects of all types that end anywhere are the auditor's.
TEST(Binder, OffsetTextEndsAtEveryByte)
{
    const Mirror mirror;
    for (uint32_t size = 16; size <= 0x28; ++size)
    {
        SCOPED_TRACE(size);
        Object object(0xE1, size, size,
                      {Dword(0x18, 0x24), Chars(0x24, "abc")});
        const bool hasWord = size >= 0x1C;
        const bool hasText = size >= 0x28;
        EXPECT_EQ(CreateObject(*FindRow(0xE1), object.Header(), nullptr),
                  hasWord && !hasText ? kInvalidValue : 0);
        const auto rows = mirror.Rows("SELECT fqdd FROM TblMemoryInfo WHERE "
                                      "OID = " +
                                      std::to_string(size));
        EXPECT_EQ(rows, hasText   ? std::vector<std::string>{"abc"}
                        : hasWord ? std::vector<std::string>{}
                                  : std::vector<std::string>{"NULL"});
    }
}

// clang-format off
// Enum cells of three and of one character, each with its NUL.
const Piece kCells = Raw(0x60, std::string("on\0\0abc\0a\0\0\0", 12));
const Piece kShown = Raw(0x70, std::string("A\0B\0C\0", 6));

Pieces EnumObject(unsigned count, unsigned valuesAt, unsigned shownAt = 0)
{
    return {Word(0x46, count), Word(0x48, 3), Word(0x4A, 1), Word(0x50, valuesAt), Word(0x52, shownAt), kCells, kShown};
}

// An address list at byte 0x200; `countAt` and the offset word behind it.
Pieces ListObject(size_t countAt, unsigned count, const std::string &texts)
{
    return {Dword(countAt, count), Dword(countAt + 4, 0x200 - 0x1C), Raw(0x200, texts)};
}
constexpr size_t kFqdd = 0x1C3;
constexpr size_t kGateway = 0x1DB;
constexpr size_t kDns = 0x1E3;

const std::string kMixed("/6:2001:db8::1\0eth0/4 192.0.2.1\0/4:192.0.2.2\0/6:fe80::1\0", 56);

const FieldCase kLists[] = {
    {"values", 0x706, 0x80, EnumObject(3, 0x60), "possible_value_", "'on#$#abc#$#a'"},
    {"more values than the object holds", 0x706, 0x6C, EnumObject(0xFFFF, 0x60), "possible_value_", "'on#$#abc#$#a'"},
    {"list behind the object", 0x706, 0x80, EnumObject(2, 0x80), "possible_value_", "NULL"},
    {"list offset 5001", 0x706, 0x80, EnumObject(2, 5001), "possible_value_", nullptr},
    {"shown list offset 5001", 0x706, 0x80, EnumObject(2, 0x60, 5001), "display_value_", nullptr},

    {"only the first", 0x1200, 0x300, ListObject(kDns, 1, kMixed), "DNSServer", "'@@@2001:db8::1'"},
    {"IPv4's marker comes first", 0x1200, 0x300, ListObject(kDns, 1, "/6:1/4:2"), "DNSServer", "'2'"},
    {"more addresses than the object holds", 0x1200, 0x200 + 56, ListObject(kDns, 0xFFFFFFFF, kMixed), "DNSServer", "'192.0.2.1#$#192.0.2.2@@@2001:db8::1#$#fe80::1'"},
    {"last address without NUL", 0x1200, 0x200 + 55, ListObject(kDns, 4, kMixed), "DNSServer", "'192.0.2.1#$#192.0.2.2@@@2001:db8::1'"},
    {"address list behind the object", 0x1200, 0x200, ListObject(kGateway, 1, ""), "GatewayAddress", "NULL"},
    {"address list offset 5001", 0x1200, 0x300, {Dword(kDns, 1), Dword(kDns + 4, 5001)}, "DNSServer", nullptr},
    {"no address list", 0x1200, 0x300, {Dword(kDns, 1)}, "DNSServer", "NULL"},
    {"no adapters", 0x1200, 0x300, {Dword(kFqdd, 2)}, "PhysicalNetworkFQDDs", "NULL"},
};
// clang-format on

TEST(Binder, JoinsLists)
{
    Check(kLists);
}

TEST(Binder, SkipsAddressesWithoutFamily)
{
    const Mirror mirror;
    CaptureLog();
    const std::string texts("192.0.2.9\0/4\0/4:10.0.0.1\0/5:x\0", 31);
    Pieces pieces = ListObject(kDns, 4, texts);
    std::ranges::copy(ListObject(kGateway, 2, texts),
                      std::back_inserter(pieces));
    Object object(0x1200, kOid, 0x300, pieces);
    EXPECT_EQ(CreateObject(*FindRow(0x1200), object.Header(), nullptr), 0);
    EXPECT_EQ(mirror.Value("SELECT quote(DNSServer), quote(GatewayAddress) "
                           "FROM TblOSLogicalNetworkIntfObj"),
              "'10.0.0.1'|''");
    EXPECT_EQ(CountLog("Invalid DNSServerStr"), 3);
    EXPECT_EQ(CountLog("Invalid GatewayAddress"), 2);
}

TEST(Binder, KeepsArraysInsideTheObject)
{
    struct Case
    {
        const char *name;
        uint16_t type;
        size_t size;
        Pieces pieces;
        const char *query;
        std::vector<std::string> expected;
    };
    // clang-format off
    const Case cases[] = {
        {"no elements", 0x801, 0x40, {Dword(0x10, 0), Dword(0x14, 5)}, "PROP, ARR_INDEX, VAL FROM INTEGERARR_TblSoftwareInventoryMetaDataObject", {}},
        {"more elements than the object holds", 0x801, 0x14 + 11, {Dword(0x10, 0xFFFFFFFF), Dword(0x14, 5), Dword(0x18, 0x80000000), Dword(0x1C, 9)}, "PROP, ARR_INDEX, VAL FROM INTEGERARR_TblSoftwareInventoryMetaDataObject", {"ObjTypeList|0|5", "ObjTypeList|1|-2147483648"}},
        {"signed records", 0x41, 0x1A0, {Raw(0x62, "\xFB\x64\x80"), Raw(0xAA + 87, "\1\2\3"), Raw(0x104 + 153, "\4\5\6")}, "PROP, ARR_INDEX, avgValue, peakValue, warnThreshold FROM TemperatureDataARR_TblThermalHistoryObj WHERE avgValue != 0", {"tempDataLastDay|0|-5|100|-128", "tempDataLastMonth|29|1|2|3", "tempDataLastYear|51|4|5|6"}},
        {"packed records", 0xD2, 0x1C8, {Word(0x151, 1), Qword(0x153, 2), Qword(0x15B, 3), Qword(0x163, 4), Word(0x16B, 5), Byte(0x16D, 6)}, "ARR_INDEX, size, nonVolatileSize, volatileSize, cacheSize, speed, type FROM HbmInfoARR_TblDevProcessor WHERE ARR_INDEX != 0", {"1|1|2|3|4|5|6", "2|0|0|0|0|0|0", "3|0|0|0|0|0|0", "4|0|0|0|0|0|0"}},
        {"last record one byte short", 0xD2, 0x1C4, {}, "count(*) FROM HbmInfoARR_TblDevProcessor", {"4"}},
        {"IPv4", 0x1200, 0x27F, {Dword(0x1CB, 2), Dword(0x1CF, 0x200 - 0x1C), Chars(0x200, "10.0.0.1"), Chars(0x220, "255.0.0.0"), Chars(0x240, "10.0.0.2")}, "PROP, ARR_INDEX, ipAddr, subnetMask FROM NetIntfIPv4InfoARR_TblOSLogicalNetworkIntfObj", {"IpV4Address|0|10.0.0.1|255.0.0.0"}},
        {"IPv6", 0x1200, 0x300, {Dword(0x1D3, 1), Dword(0x1D7, 0x200 - 0x1C), Chars(0x200, "fe80::1"), Dword(0x240, 64), Byte(0x244, 32)}, "PROP, ARR_INDEX, ipAddr, prefixLen, scope FROM NetIntfIPv6InfoARR_TblOSLogicalNetworkIntfObj", {"IpV6Address|0|fe80::1|64|32"}},
        {"records far outside", 0x1200, 0x300, {Dword(0x1D3, 0xFFFFFFFF), Dword(0x1D7, 0xFFFFFFF0)}, "count(*) FROM NetIntfIPv6InfoARR_TblOSLogicalNetworkIntfObj", {"0"}},
    };
    // clang-format on
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        const Mirror mirror;
        Object object(test.type, kOid, test.size, test.pieces);
        EXPECT_EQ(CreateObject(*FindRow(test.type), object.Header(), nullptr),
                  0);
        EXPECT_EQ(mirror.Rows(std::string("SELECT ") + test.query),
                  test.expected);
    }
}

TEST(Predicate, ChooseBetweenTwoRows)
{
    // clang-format off
    const struct
    {
        const char *name;
        uint16_t type;
        size_t size;
        Pieces pieces;
        bool first;
        bool second;
    } cases[] = {
        {"PCIe", 0x31B, 0x780, {Dword(0x20, 0x40)}, true, false},
        {"NVMe", 0x31B, 0x780, {Dword(0x20, 0x100), Dword(0x748, 2)}, true, false},
        {"SAS SSD", 0x31B, 0x780, {Dword(0x20, 0x10), Dword(0x748, 6)}, false, true},
        {"SATA hard disk", 0x31B, 0x780, {Dword(0x20, 0x20), Dword(0x748, 0xFFFFFFFD)}, false, false},
        {"other protocol", 0x31B, 0x780, {Dword(0x20, 0x80), Dword(0x748, 2)}, false, false},
        {"attributes outside", 0x31B, 0x74B, {Dword(0x20, 0x10), Dword(0x748, 2)}, false, false},
        {"RAID slot", 0x45, 0x40, {Word(0x1C, 7), Word(0x1E, 1)}, true, false},
        {"other slot", 0x45, 0x40, {Word(0x1C, 6)}, false, true},
        {"slot kind outside", 0x45, 0x1D, {Word(0x1C, 7)}, false, true},
    };
    // clang-format on
    for (const auto &test : cases)
    {
        SCOPED_TRACE(test.name);
        Object object(test.type, kOid, test.size, test.pieces);
        const ObjTypeRow *row = FindRow(test.type);
        EXPECT_EQ(Applies(row[0], object.Header(), nullptr), test.first);
        EXPECT_EQ(Applies(row[1], object.Header(), nullptr), test.second);
    }
}

TEST(Predicate, RepairsDependencyOffset)
{
    const struct
    {
        uint16_t before;
        uint16_t after;
        uint32_t size;
    } cases[] = {
        {0xFA0, 0xFA0, 0x60},  {0x1FA1, 0xFA1, 0x60},  {0xFA1, 0xFA1, 0x60},
        {0xF060, 0x060, 0x60}, {0x1FA1, 0x1FA1, 0x4D}, // outside
    };
    for (const auto &test : cases)
    {
        for (const unsigned type : {0x706u, 0x726u, 0x746u, 0x786u})
        {
            SCOPED_TRACE(test.before);
            Object object(static_cast<uint16_t>(type), kOid, 0x60,
                          {Word(0x4C, test.before)});
            object.Header()->objSize = test.size;
            EXPECT_TRUE(Applies(*FindRow(type), object.Header(), nullptr));
            EXPECT_EQ(object.WordAt(0x4C), test.after);
        }
    }
}

} // namespace
} // namespace qdb::test

// From an object's bytes to the columns of its row: every form of field, the
// joined lists, the array elements, the predicates, and objects that end too
// early.
//
// Objects are written here byte by byte, apart from the layouts that the
// service and the stand-in share. Each lies in a block of exactly its size, so
// that a sanitizer sees any byte that is read outside of it.

#include "objects/catalogue.h"
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

const ObjTypeRow &RowOf(uint16_t type)
{
    return *FindRow(type);
}

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
        const ObjTypeRow &row = RowOf(test.type);
        const bool refused = test.expected == nullptr;
        EXPECT_EQ(row.CreateObjFP(object.Header(), nullptr),
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
    {"unsigned 8", 0xE1, 0x120, {Byte(0x113, 0xFF)}, "CPU", "255"},
    {"unsigned 16", 0xE1, 0x120, {Word(0xC2, 0xFFFE)}, "DataWidth", "65534"},
    {"unsigned 32", 0xE1, 0x120, {Dword(0x20, 0xFFFFFFFE)}, "Speed", "4294967294"},
    {"signed 8", 0x30A, 0xE0, {Byte(0xBD, 0xD8)}, "currentReadingCelcius", "-40"},
    {"signed 16", 0x45, 0x40, {Word(0x1E, 0xFFFD)}, "emptySlotObj_DOT_isEnabled", "-3"},
    {"signed 32, unaligned", 0xE1, 0x120, {Dword(0xB6, 0xFFFFFFFE)}, "UpdateTime", "-2"},
    {"64 bits, unaligned", 0xE1, 0x120, {Qword(0xE2, 0x0102030405060708)}, "CacheSize", "72623859790382856"},
    {"64 bits, all", 0xE1, 0x120, {Qword(0xEA, ~0ULL)}, "LogicalSize", "-1"},
    {"status byte", 0xE1, 0x120, {Byte(0x0A, 200)}, "DOH_ObjStatus", "200"},
    {"extended flags", 0xE1, 0x120, {Dword(0x10, 0xDEADBEEF)}, "objExtFlags", "3735928559"},
    {"own extended flags", 0x701, 0x2D0, {Dword(0x10, 7), Dword(0x78, 9)}, "hdr_DOT_objExtFlags", "9"},
    {"one byte before the next word", 0x40, 0x40, {Byte(0x21, 0x7B), Byte(0x22, 0xFF), Byte(0x23, 0xFF)}, "iFan", "123"},

    {"lowest bit set", 0x30A, 0xE0, {Byte(0xCC, 0x5B)}, "editable", "1"},
    {"lowest bit clear", 0x30A, 0xE0, {Byte(0xCC, 0xA4)}, "editable", "0"},
    {"upper bits", 0x30A, 0xE0, {Byte(0xCC, 0xA4)}, "editGroup", "82"},
    {"three low bits", 0x31B, 0x800, {Byte(0xF9, 0xED)}, "smartData_DOT_ErrorInfoLogRecord_DOT_ParameterErrorLocation_DOT_BitInCommand", "5"},
    {"five high bits", 0x31B, 0x800, {Byte(0xF9, 0xED)}, "smartData_DOT_ErrorInfoLogRecord_DOT_ParameterErrorLocation_DOT_Reserved", "29"},
    {"phase tag", 0x31B, 0x800, {Word(0xF6, 0xABCD)}, "smartData_DOT_ErrorInfoLogRecord_DOT_StatusField_DOT_PhaseTag", "1"},
    {"bits across two bytes", 0x31B, 0x800, {Word(0xF6, 0xABCD), Word(0xF8, 0xFFFF)}, "smartData_DOT_ErrorInfoLogRecord_DOT_StatusField_DOT_Status", "21990"},

    {"float", 0xD40, 0x60, {Put(0x2C, -2.25F)}, "sensorReading", "-2.25"},
    {"float, widened exactly", 0xD40, 0x60, {Put(0x2C, 0.1F)}, "sensorReading = 0.100000001490116119384765625", "1"},
    {"float without fraction", 0xD40, 0x60, {Put(0x2C, 5.0F)}, "sensorReading", "5.0"},
    {"float NaN", 0xD40, 0x60, {Put(0x2C, std::nanf(""))}, "sensorReading", "NULL"},
    {"float infinity", 0xD40, 0x60, {Put(0x2C, HUGE_VALF)}, "sensorReading", "NULL"},
    {"float minus infinity", 0xD40, 0x60, {Put(0x2C, -HUGE_VALF)}, "sensorReading", "NULL"},
    {"double", 0x221, 0x110, {Put(0x89, 0.1)}, "DRAMUsage", "0.1"},
    {"double NaN", 0x221, 0x110, {Put(0x89, std::nan(""))}, "DRAMUsage", "NULL"},
    {"double infinity", 0x221, 0x110, {Put(0x89, -HUGE_VAL)}, "DRAMUsage", "NULL"},

    {"inline text", 0x1001, 0x60, {Chars(0x2C, "\xC2\xB5 1")}, "key", "'\xC2\xB5 1'"},
    {"empty inline text", 0x1001, 0x60, {}, "key", "''"},
    {"inline text up to the object's end", 0x1001, 0x2F, {Raw(0x2C, "abcdef")}, "key", "'abc'"},
    {"inline text behind the object's end", 0x1001, 0x2C, {}, "key", "NULL"},
    {"text or NULL", 0x230, 0x1C0, {Chars(0x122, "2024-01-02")}, "ReleaseDate", "'2024-01-02'"},
    {"empty text or NULL", 0x230, 0x1C0, {}, "ReleaseDate", "NULL"},

    {"offset text", 0x1001, 0x60, {Dword(0x14, 0x40), Chars(0x40, "here")}, "key_STR", "'here'"},
    {"no offset text", 0x1001, 0x60, {Dword(0x14, 0)}, "key_STR", "NULL"},
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
    {"header pair", 0x706, 0x80, {Word(0x1C, 0x60), Word(0x1E, 0x68), Word(0x20, 0xFFFF), Chars(0x60, "name"), Chars(0x68, "fqdd")}, "hdr_DOT_ObjName || hdr_DOT_OrigFQDD || hdr_DOT_Partition", "'namefqdd65535'"},
    {"setup values", 0x706, 0x80, {Word(0x40, 0x60), Word(0x42, 0x68), Word(0x44, 0x70), Word(0x46, 0xFFFF), Chars(0x60, "c"), Chars(0x68, "p"), Chars(0x70, "d")}, "current_ || pending_ || default_", "'cpd'"},
    {"16 bits like the sister tables", 0x706, 0x80, {Word(0x36, 0x60), Word(0x38, 0xFFFF), Chars(0x60, "group")}, "metadata_DOT_groupDisplayName", "'group'"},
    {"dependency texts", 0x706, 0x80, {Word(0x4C, 0x60), Word(0x4E, 0x68), Word(0x50, 0), Chars(0x60, "list"), Chars(0x68, "one")}, "metadata_DOT_attrDependencies || dependency_", "'listone'"},

    {"pending value", 0x4053, 0x80, {Dword(0x5C, 0x100), Dword(0x2C, 0x70), Chars(0x70, "On")}, "PendingValue", "'On'"},
    {"pending value that isn't there", 0x4053, 0x80, {Dword(0x5C, 0), Dword(0x2C, 0x70), Chars(0x70, "On")}, "PendingValue", "NULL"},
    {"pending value that isn't there, invalid", 0x4053, 0x80, {Dword(0x2C, 5001)}, "PendingValue", "NULL"},
    {"pending value, invalid", 0x4053, 0x80, {Dword(0x5C, 1), Dword(0x2C, 5001)}, "PendingValue", nullptr},
    {"text from the body", 0x1200, 0x220, {Dword(0x1EF, 0x1E4), Chars(0x200, "team")}, "NicTeamInfo", "'team'"},
    {"no text from the body", 0x1200, 0x220, {}, "NicTeamInfo", "NULL"},
    {"root key", 0x1200, 0x220, {Dword(0x14, 0x200), Chars(0x200, "root")}, "RootObjectKey", "'root'"},
    {"never stored", 0x1200, 0x220, {Dword(0x1C, 99)}, "NetIntf", "NULL"},
    {"software hash", 0x802, 0x80, {Dword(0x47, 0x70), Chars(0x70, "abc")}, "Sha256String", "'abc'"},
};
// clang-format on

TEST(Binder, BindsEveryForm)
{
    Check(kFields);
}

TEST(Binder, LeavesFourColumnsOfOneTypeEmpty)
{
    const Mirror mirror;
    CaptureLog();
    // One word leads outside of the object, and doesn't matter.
    Object object(0x49, kOid, 0x80,
                  {Dword(0x50, 0x70), Dword(0x54, 5001), Dword(0x47, 0x70),
                   Dword(0x2C, 0x70), Chars(0x70, "x")});
    EXPECT_EQ(RowOf(0x49).CreateObjFP(object.Header(), nullptr), 0);
    EXPECT_EQ(mirror.Value("SELECT CurrentReleaseDate, PreviousReleaseDate, "
                           "PreviousVersionHash, Sha256String, "
                           "CurrentVersionString FROM "
                           "TblBaseSoftwareInventoryObject"),
              "NULL|NULL|NULL|NULL|x");
    const std::string line = " for HVX object is not set. Binding with NULL.";
    const std::string start = "p_basesoftwareinventoryobject->Offset";
    EXPECT_EQ(CountLog(start + "CurrentReleaseDate" + line), 1);
    EXPECT_EQ(CountLog(start + "PreviousReleaseDate" + line), 1);
    EXPECT_EQ(CountLog(start + "PreviousVersionHash" + line), 0);
    EXPECT_EQ(CountLog(start + "Sha256String" + line), 1);
}

// A memory module that ends at every byte. What lies inside is stored; a text
// ends with the object; below a header there is no object.
TEST(Binder, EndsAtEveryByte)
{
    struct Field
    {
        const char *column;
        size_t at;
        std::string value;
        size_t width; // 0: a text
    };
    const Field fields[] = {
        {"Capacity", 0x28, "16843009", 4},
        {"BankLabel", 0x30, "A1", 0},
        {"UpdateTime", 0xB6, "16843009", 4},
        {"DataWidth", 0xC2, "257", 2},
        {"CacheSize", 0xE2, "72340172838076673", 8},
        {"MemoryTypeExtended", 0x114, "1", 1},
        {"Key", 0x115, "DIMM", 0},
    };
    const Mirror mirror;
    constexpr size_t kSize = 0x11A;
    const Pieces pieces = {
        Raw(0x20, std::string(0xF5, '\1')),
        Chars(0x30, "A1"),
        Chars(0x115, "DIMM"),
    };
    std::vector<std::string> expected;
    std::string columns = "OID";
    for (const Field &field : fields)
    {
        columns += std::string(", ") + field.column;
    }
    for (size_t size = 0; size <= kSize; ++size)
    {
        Object object(0xE1, static_cast<uint32_t>(0x1000 + size), size, pieces);
        EXPECT_EQ(RowOf(0xE1).CreateObjFP(object.Header(), nullptr),
                  size < 16 ? kInvalidValue : 0)
            << size;
        std::string row = std::to_string(0x1000 + size);
        for (const auto &[column, at, value, width] : fields)
        {
            const size_t inside = size > at ? size - at : 0;
            row += inside == 0 || inside < width
                       ? "|NULL"
                       : "|" + (width == 0 ? value.substr(0, inside) : value);
        }
        if (size >= 16)
        {
            expected.push_back(row);
        }
    }
    EXPECT_EQ(
        mirror.Rows("SELECT " + columns + " FROM TblMemoryInfo ORDER BY OID"),
        expected);
    EXPECT_EQ(mirror.Value("SELECT count(*) FROM ActiveOIDMapping"),
              std::to_string(expected.size()));
}

// The same with a text behind the fixed part: it is all there, or the object
// can't be read as it stands.
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
        EXPECT_EQ(RowOf(0xE1).CreateObjFP(object.Header(), nullptr),
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
    {"one value", 0x706, 0x80, EnumObject(1, 0x60), "possible_value_", "'on'"},
    {"no value", 0x706, 0x80, EnumObject(0, 0x60), "possible_value_", "NULL"},
    {"no list", 0x706, 0x80, EnumObject(3, 0), "possible_value_", "NULL"},
    {"shown values", 0x706, 0x80, EnumObject(2, 0x60, 0x70), "display_value_", "'A#$#B'"},
    {"more values than the object holds", 0x706, 0x6C, EnumObject(0xFFFF, 0x60), "possible_value_", "'on#$#abc#$#a'"},
    {"list behind the object", 0x706, 0x80, EnumObject(2, 0x80), "possible_value_", "NULL"},
    {"list offset 5001", 0x706, 0x80, EnumObject(2, 5001), "possible_value_", nullptr},
    {"shown list offset 5001", 0x706, 0x80, EnumObject(2, 0x60, 5001), "display_value_", nullptr},

    {"both families", 0x1200, 0x300, ListObject(kDns, 4, kMixed), "DNSServer", "'192.0.2.1#$#192.0.2.2@@@2001:db8::1#$#fe80::1'"},
    {"only the first", 0x1200, 0x300, ListObject(kDns, 1, kMixed), "DNSServer", "'@@@2001:db8::1'"},
    {"only IPv4", 0x1200, 0x300, ListObject(kDns, 1, "/4:192.0.2.1"), "DNSServer", "'192.0.2.1'"},
    {"gateways", 0x1200, 0x300, ListObject(kGateway, 3, kMixed), "GatewayAddress", "'192.0.2.1#$#192.0.2.2@@@2001:db8::1'"},
    {"IPv4's marker comes first", 0x1200, 0x300, ListObject(kDns, 1, "/6:1/4:2"), "DNSServer", "'2'"},
    {"no addresses", 0x1200, 0x300, ListObject(kDns, 0, kMixed), "DNSServer", "NULL"},
    {"more addresses than the object holds", 0x1200, 0x200 + 56, ListObject(kDns, 0xFFFFFFFF, kMixed), "DNSServer", "'192.0.2.1#$#192.0.2.2@@@2001:db8::1#$#fe80::1'"},
    {"last address without NUL", 0x1200, 0x200 + 55, ListObject(kDns, 4, kMixed), "DNSServer", "'192.0.2.1#$#192.0.2.2@@@2001:db8::1'"},
    {"address list behind the object", 0x1200, 0x200, ListObject(kGateway, 1, ""), "GatewayAddress", "NULL"},
    {"address list offset 5001", 0x1200, 0x300, {Dword(kDns, 1), Dword(kDns + 4, 5001)}, "DNSServer", nullptr},
    {"no address list", 0x1200, 0x300, {Dword(kDns, 1)}, "DNSServer", "NULL"},
    {"adapters", 0x1200, 0x300, ListObject(kFqdd, 2, std::string("NIC.1\0NIC.22\0", 13)), "PhysicalNetworkFQDDs", "'NIC.1#$#NIC.22'"},
    {"one adapter", 0x1200, 0x300, ListObject(kFqdd, 1, std::string("NIC.1\0NIC.22\0", 13)), "PhysicalNetworkFQDDs", "'NIC.1'"},
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
    EXPECT_EQ(RowOf(0x1200).CreateObjFP(object.Header(), nullptr), 0);
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
        {"16 bits", 0x308, 0x600, {Word(0x22C, 0xFFFF), Word(0x23A, 8), Word(0x23C, 77)}, "PROP, ARR_INDEX, VAL FROM INTEGERARR_TblRAID_Enclosure WHERE VAL != 0", {"enclPartnerIDList|0|65535", "enclPartnerIDList|7|8"}},
        {"8 bits", 0x5D, 0x30, {Raw(0x18, std::string(19, '\xFE')), Byte(0x2B, 1)}, "count(*), min(VAL), max(VAL) FROM INTEGERARR_TblHealthStatusObj", {"20|1|254"}},
        {"three properties", 0x39, 0x120, {Word(0xC1, 1), Word(0xEF, 2), Word(0x49, 3), Word(0xBF, 4), Word(0xF1, 5), Word(0x10B, 6)}, "PROP, ARR_INDEX, VAL FROM INTEGERARR_TblUsageStatisticsObj WHERE VAL != 0 ORDER BY VAL", {"usageHistStatistics_DOT_lastDay|0|1", "usageHistStatistics_DOT_lastDay|23|2", "usageHistStatistics_DOT_lastHour|0|3", "usageHistStatistics_DOT_lastHour|59|4", "usageHistStatistics_DOT_lastWeek|0|5", "usageHistStatistics_DOT_lastWeek|13|6"}},
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
        EXPECT_EQ(RowOf(test.type).CreateObjFP(object.Header(), nullptr), 0);
        EXPECT_EQ(mirror.Rows(std::string("SELECT ") + test.query),
                  test.expected);
    }
}

TEST(Predicate, ChooseBetweenTwoRows)
{
    struct Case
    {
        const char *name;
        uint16_t type;
        size_t size;
        Pieces pieces;
        bool first;
        bool second;
        std::vector<std::string> lines;
    };
    // clang-format off
    const Case cases[] = {
        {"PCIe", 0x31B, 0x780, {Dword(0x20, 0x40)}, true, false, {"Is_NVMe: protocol = 64", "Is_NVMe: attributes = 0", "Is_NVMe:PCIe-NVMe", "Is_SAS_SATA: protocol = 64", "Is_SAS_SATA: attributes = 0"}},
        {"NVMe", 0x31B, 0x780, {Dword(0x20, 0x100), Dword(0x748, 2)}, true, false, {"Is_NVMe: protocol = 256", "Is_NVMe: attributes = 2", "Is_NVMe:PCIe-NVMe", "Is_SAS_SATA: protocol = 256", "Is_SAS_SATA: attributes = 2"}},
        {"SAS SSD", 0x31B, 0x780, {Dword(0x20, 0x10), Dword(0x748, 6)}, false, true, {"Is_NVMe: protocol = 16", "Is_NVMe: attributes = 6", "Is_SAS_SATA: protocol = 16", "Is_SAS_SATA: attributes = 6", "Is_SAS_SATA:SAS/SATA SSD drive"}},
        {"SATA SSD", 0x31B, 0x780, {Dword(0x20, 0x20), Dword(0x748, 2)}, false, true, {"Is_NVMe: protocol = 32", "Is_NVMe: attributes = 2", "Is_SAS_SATA: protocol = 32", "Is_SAS_SATA: attributes = 2", "Is_SAS_SATA:SAS/SATA SSD drive"}},
        {"SATA hard disk", 0x31B, 0x780, {Dword(0x20, 0x20), Dword(0x748, 0xFFFFFFFD)}, false, false, {"Is_NVMe: protocol = 32", "Is_NVMe: attributes = -3", "Is_SAS_SATA: protocol = 32", "Is_SAS_SATA: attributes = -3", "Is_SAS_SATA:SAS/SATA HDD drive. Skip adding in DB"}},
        {"other protocol", 0x31B, 0x780, {Dword(0x20, 0x80), Dword(0x748, 2)}, false, false, {"Is_NVMe: protocol = 128", "Is_NVMe: attributes = 2", "Is_SAS_SATA: protocol = 128", "Is_SAS_SATA: attributes = 2"}},
        {"attributes outside", 0x31B, 0x74B, {Dword(0x20, 0x10), Dword(0x748, 2)}, false, false, {"Is_NVMe: protocol = 16", "Is_NVMe: attributes = 0", "Is_SAS_SATA: protocol = 16", "Is_SAS_SATA: attributes = 0", "Is_SAS_SATA:SAS/SATA HDD drive. Skip adding in DB"}},
        {"RAID slot", 0x45, 0x40, {Word(0x1C, 7), Word(0x1E, 1)}, true, false, {}},
        {"other slot", 0x45, 0x40, {Word(0x1C, 6)}, false, true, {}},
        {"slot kind outside", 0x45, 0x1D, {Word(0x1C, 7)}, false, true, {}},
    };
    // clang-format on
    for (const Case &test : cases)
    {
        SCOPED_TRACE(test.name);
        CaptureLog();
        Object object(test.type, kOid, test.size, test.pieces);
        const ObjTypeRow *row = FindRow(test.type);
        const int first = row[0].ObjMatchFP(object.Header(), nullptr);
        const int second = row[1].ObjMatchFP(object.Header(), nullptr);
        EXPECT_EQ(first, test.first ? 0 : 1);
        EXPECT_EQ(second, test.second ? 0 : 1);
        EXPECT_EQ(LogLines(), test.lines);
    }
}

TEST(Predicate, RepairsDependencyOffset)
{
    struct Case
    {
        uint16_t before;
        uint16_t after;
        size_t size;
        std::vector<std::string> lines;
    };
    const std::string line = "Obj->dependency_list_offset - 0x";
    const Case cases[] = {
        {0xFA0, 0xFA0, 0x60, {line + "fa0", line + "fa0"}},
        {0x1FA1, 0xFA1, 0x60, {line + "1fa1", line + "fa1"}},
        {0xFA1, 0xFA1, 0x60, {line + "fa1", line + "fa1"}},
        {0xF060, 0x060, 0x60, {line + "f060", line + "60"}},
        {0x1FA1, 0x1FA1, 0x4D, {line + "0", line + "0"}}, // outside
    };
    for (const Case &test : cases)
    {
        for (const unsigned type : {0x706u, 0x726u, 0x746u, 0x786u})
        {
            SCOPED_TRACE(test.before);
            CaptureLog();
            Object object(static_cast<uint16_t>(type), kOid, 0x60,
                          {Word(0x4C, test.before)});
            object.Header()->objSize = static_cast<uint32_t>(test.size);
            EXPECT_EQ(FindRow(type)->ObjMatchFP(object.Header(), nullptr), 0);
            EXPECT_EQ(object.WordAt(0x4C), test.after);
            EXPECT_EQ(LogLines(), test.lines);
        }
    }
}

} // namespace
} // namespace qdb::test

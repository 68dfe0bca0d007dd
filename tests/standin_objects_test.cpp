// The stand-in's objects as bytes: where their parts lie, what is refused, and
// that generated and changed ones are what a reader expects.
#include "objects/schema/rows.h"
#include "platform/standin/object_builder.h"
#include "platform/standin/standin.h"
#include "tests/standin_values.h"

#include <map>
#include <set>

using namespace standin_test;

namespace
{

Bytes Built(uint16_t type, const std::string &values)
{
    std::string error;
    Bytes bytes = standin::BuildObject({.type = type, .oid = 0x1234},
                                       Parse(values).get(), &error);
    EXPECT_EQ(error, "");
    return bytes;
}

struct Field
{
    size_t at;
    size_t size;
    uint64_t value;
};

struct Layout
{
    const char *name;
    uint16_t type;
    const char *values;
    size_t objSize;
    std::vector<Field> fields;
    std::map<size_t, std::string> texts;
};

// clang-format off
// Sizes and places were worked out by hand.
const Layout kLayouts[] = {
    {"plain fields, inline texts and offset texts", 0xE1,
     R"({"BankLabel":"A1","CacheSize":"0xFFFFFFFFFFFFFFFF","CanBeFRUed":255,
         "Capacity":32768,"CPU":1,"UpdateTime":-2,"fqdd":"DIMM.Socket.A1",
         "friendlyFQDD":"DIMM A1","Key":"E1||A1","DOH_ObjStatus":2,
         "Manufacturer":"Example Memory Works, A/S and C","Rank":null})",
     0x155 + 15 + 8,
     {{4, 4, 0x1234}, {8, 2, 0xE1}, {10, 1, 2}, {0xE2, 8, UINT64_MAX}, {0xB4, 1, 255},
      {0x28, 4, 32768}, {0x113, 1, 1}, {0xB6, 4, 0xFFFFFFFE}, {0xC4, 1, 0},
      {0x18, 4, 0x155}, {0x1C, 4, 0x155 + 15}},
     {{0x30, "A1"}, {0x34, "Example Memory Works, A/S and C"}, {0x54, ""},
      {0x115, "E1||A1"}, {0x155, "DIMM.Socket.A1"}, {0x155 + 15, "DIMM A1"}}},
    {"enumerated values in cells, narrow offset words", 0x706,
     R"({"possible_value_":["On","Disabled"],"display_value_":["Yes","No"],
         "hdr_DOT_ObjName":"n","hdr_DOT_OrigFQDD":"o"})",
     0x56 + 2 + 2 + 18 + 8,
     {{0x1C, 2, 0x56}, {0x1E, 2, 0x58}, {0x46, 2, 2}, {0x48, 2, 8}, {0x4A, 2, 3},
      {0x50, 2, 0x5A}, {0x52, 2, 0x5A + 18}},
     {{0x5A, "On"}, {0x63, "Disabled"}, {0x6C, "Yes"}, {0x70, "No"}}},
    {"given counts and sizes of cells hold", 0x706,
     R"({"possible_value_":["On"],"entry_count":9,"entry_size":4})",
     0x56 + 5,
     {{0x46, 2, 9}, {0x48, 2, 4}, {0x50, 2, 0x56}}, {{0x56, "On"}}},
    // The last text of the fields, `reserved`, has 64 bytes.
    {"address lists and arrays behind the body's base", 0x1200,
     R"({"IpV4Address":[{"ipAddr":"192.0.2.7","subnetMask":"255.0.0.0"},
                        {"ipAddr":"192.0.2.8"}],
         "IpV6Address":[{"ipAddr":"fe80::1","prefixLen":64,"scope":2}],
         "NicTeamInfo":"team","DNSServer":["192.0.2.1","2001:db8::1","x/y"],
         "PhysicalNetworkFQDDs":["NIC.1","NIC.2"],"GatewayAddress":[]})",
     0x237 + 5 + 13 + 15 + 4 + 12 + 2 * 64 + 69,
     {{0x1EF, 4, 0x237 - 0x1C}, {0x1E3, 4, 3}, {0x1E7, 4, 0x23C - 0x1C},
      {0x1C3, 4, 2}, {0x1C7, 4, 0x25C - 0x1C}, {0x1DB, 4, 0}, {0x1DF, 4, 0},
      {0x1CB, 4, 2}, {0x1CF, 4, 0x268 - 0x1C}, {0x1D3, 4, 1}, {0x1D7, 4, 0x2E8 - 0x1C},
      {0x2E8 + 0x40, 4, 64}, {0x2E8 + 0x44, 1, 2}},
     {{0x237, "team"}, {0x23C, "/4=192.0.2.1"}, {0x249, "/6=2001:db8::1"},
      {0x258, "x/y"}, {0x25C, "NIC.1"}, {0x262, "NIC.2"}, {0x268, "192.0.2.7"},
      {0x268 + 32, "255.0.0.0"}, {0x2A8, "192.0.2.8"}, {0x2E8, "fe80::1"}}},
    {"bit fields share their bytes", 0x31B,
     R"({"protocol":64,
  "smartData_DOT_ErrorInfoLogRecord_DOT_StatusField_DOT_Status":"0x7FFE",
  "smartData_DOT_ErrorInfoLogRecord_DOT_StatusField_DOT_PhaseTag":1,
  "smartData_DOT_ErrorInfoLogRecord_DOT_ParameterErrorLocation_DOT_Reserved":31,
  "smartData_DOT_ErrorInfoLogRecord_DOT_ParameterErrorLocation_DOT_BitInCommand":2})",
     0x752 + 64,
     {{0x20, 4, 64}, {0xF6, 2, 0xFFFD}, {0xF8, 2, 0xFA00}}, {}},
    {"an array wins over the field that it covers", 0x5D,
     R"({"HealthStatusArray":[1,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,19,20],"FQDD":"x"})",
     0x2F + 2,
     {{0x18, 1, 1}, {0x2A, 1, 19}, {0x2B, 4, 20}}, {{0x2F, "x"}}},
    {"a field stands where the array has no element", 0x5D,
     R"({"HealthStatusArray":[1,2],"FQDD":"x"})",
     0x2F + 2,
     {{0x18, 2, 0x0201}, {0x1A, 1, 0}, {0x2B, 4, 0x2F}}, {{0x2F, "x"}}},
    {"a counted array follows its count", 0x801,
     R"({"ObjTypeList":[226,"0x304",3]})",
     0x14 + 12,
     {{0x10, 4, 3}, {0x14, 4, 226}, {0x18, 4, 0x304}, {0x1C, 4, 3}}, {}},
    {"a text that is there if a word says so", 0x4053,
     R"({"PendingValue":"later"})",
     0x64 + 6,
     {{0x2C, 4, 0x64}, {0x5C, 4, 1}}, {{0x64, "later"}}},
    {"of two fields in one place the later holds", 0x900,
     R"({"rootBody_DOT_lmRootOID_DOT_ObjIDUnion_DOT_asu32":"0x01020304",
         "rootBody_DOT_lmRootOID_DOT_ObjIDUnion_DOT_InnerObjIDStruct_DOT_objID2":9})",
     0x2C,
     {{0x1C, 4, 0x01020904}}, {}},
    {"the kind of a slot chooses the table", 0x45,
     R"({"slotType":7,"fqdd":"Slot.1"})",
     0x36 + 64,
     {{0x1C, 2, 7}}, {{0x36, "Slot.1"}}},
};
// clang-format on

TEST(StandinObjects, LieWhereTheLayoutSays)
{
    for (const Layout &layout : kLayouts)
    {
        SCOPED_TRACE(layout.name);
        const Bytes bytes = Built(layout.type, layout.values);
        EXPECT_EQ(bytes.size(), layout.objSize);
        EXPECT_EQ(Load(bytes, 0, 4), layout.objSize);
        for (const Field &field : layout.fields)
        {
            EXPECT_EQ(Load(bytes, field.at, field.size), field.value)
                << "at " << std::hex << field.at;
        }
        for (const auto &[at, text] : layout.texts)
        {
            EXPECT_EQ(TextAt(bytes, at), text) << "at " << std::hex << at;
        }
    }
}

struct Refused
{
    uint16_t type;
    std::string values;
    const char *reason;
};

TEST(StandinObjects, RefuseWhatDoesNotFit)
{
    const std::string longText(5000, 'x');
    // clang-format off
    const Refused cases[] = {
        {0xE1, R"({"Sped":1})", "TblMemoryInfo.Sped: there is no such column"},
        {0xE1, R"({"OID":1})", "can't be set"},
        {0xE1, R"({"ParentObjectKey":"x"})", "can't be set"},
        {0xE1, R"({"Rank":256})", "an unsigned integer of 8 bits"},
        {0xE1, R"({"Rank":-1})", "an unsigned integer of 8 bits"},
        {0xE1, R"({"Rank":"much"})", "an unsigned integer of 8 bits"},
        {0xE1, R"({"Rank":"0x1x"})", "an unsigned integer of 8 bits"},
        {0xE1, R"({"UpdateTime":2147483648})", "a signed integer of 32 bits"},
        {0xE1, R"({"fqdd":7})", "wants a text"},
        {0xE1, R"({"BankLabel":"long"})", "there is room for 3"},
        {0xE1, R"({"Key":")" + std::string(64, 'k') + "\"}", "room for 63"},
        {0xE1, R"({"fqdd":")" + longText + R"(","friendlyFQDD":"y"})", "nothing may begin behind 5000"},
        {0x221, R"({"DRAMUsage":"much"})", "wants a number"},
        {0x221, R"({"PrimaryGpuTempExtendedPrecision":1e39})", "single precision"},
        {0x5D, R"({"HealthStatusArray":[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0]})", "at most 20 elements"},
        {0x5D, R"({"HealthStatusArray":[300]})", "8 bits"},
        {0x41, R"({"tempDataLastDay":[7]})", "wants an array of objects"},
        {0x41, R"({"tempDataLastDay":[{"mean":7}]})", "elements have no mean"},
        {0x706, R"({"possible_value_":["a"],"display_value_":["b","c"]})", "differ in length"},
        {0x706, R"({"possible_value_":["abc"],"entry_size":2})", "doesn't fit its cell"},
        {0x1200, R"({"NetIntf":"x"})", "the object has no such field"},
        {0x1200, R"({"DNSServer":"192.0.2.1"})", "wants an array of texts"},
        {0x9999, "{}", "no table holds objects of type 0x9999"},
        {0xE1, "[]", "aren't a JSON object"},
    };
    // clang-format on
    for (const Refused &refused : cases)
    {
        SCOPED_TRACE(refused.values.substr(0, 80));
        std::string error;
        const Bytes bytes =
            standin::BuildObject({.type = refused.type, .oid = 7},
                                 Parse(refused.values).get(), &error);
        EXPECT_TRUE(bytes.empty());
        EXPECT_NE(error, "");
        EXPECT_NE(error.find(refused.reason), std::string::npos) << error;
    }
}

bool IsUtf8(const std::string &text)
{
    return Json(json_string(text.c_str())) != nullptr;
}

// Every text that a reader of the table would take from the object.
void ExpectReadable(const qdb::Table &table, const Bytes &bytes)
{
    for (const qdb::Column &column : table.columns)
    {
        SCOPED_TRACE(std::string(table.name) + "." + column.name);
        const qdb::Source &source = column.source;
        if (!HasField(source))
        {
            continue;
        }
        const uint64_t word = Load(bytes, source.offset, FieldSize(source));
        switch (source.form)
        {
        case qdb::Form::Text:
        case qdb::Form::TextOrNull:
            EXPECT_NE(TextAt(bytes, source.offset), "(unterminated)");
            EXPECT_TRUE(IsUtf8(TextAt(bytes, source.offset)));
            break;
        case qdb::Form::OffsetText:
        case qdb::Form::OffsetText16:
            EXPECT_LE(word, 5000u);
            EXPECT_NE(TextAt(bytes, word), "(unterminated)");
            EXPECT_TRUE(word == 0 || IsUtf8(TextAt(bytes, word)));
            break;
        default:
            break;
        }
    }
}

TEST(StandinObjects, GeneratesReadableObjectsOfEveryTable)
{
    standin::Reset();
    std::set<uint16_t> types;
    std::set<std::pair<uint16_t, std::string>> wanted;
    for (const qdb::RowData &row : qdb::kRowData)
    {
        if (row.objType < 0x4050 || row.objType > 0x4054)
        {
            types.insert(row.objType);
            wanted.emplace(row.objType, row.table->name);
        }
    }
    ASSERT_EQ(wanted.size(), 157u);
    ASSERT_EQ(standin::GenerateObjects(2 * types.size(), {}, false), "");
    std::set<std::pair<uint16_t, std::string>> found;
    for (const uint32_t oid : standin::ObjectIds())
    {
        const Bytes bytes = standin::ObjectBytes(oid);
        ASSERT_EQ(Load(bytes, 0, 4), bytes.size());
        ASSERT_EQ(Load(bytes, 4, 4), oid);
        const auto type = static_cast<uint16_t>(Load(bytes, 8, 2));
        // As the service tells the two tables of a type apart.
        Json values(json_object());
        if (type == 0x45)
        {
            json_object_set_new(
                values.get(), "slotType",
                json_integer(static_cast<json_int_t>(Load(bytes, 0x1C, 2))));
        }
        if (type == 0x31B)
        {
            const uint64_t protocol = Load(bytes, 0x20, 4);
            json_object_set_new(
                values.get(), "protocol",
                json_integer(static_cast<json_int_t>(protocol)));
            EXPECT_TRUE(protocol == 0x40 || protocol == 0x10);
            EXPECT_EQ(Load(bytes, 0x748, 4) & 2, 2u);
        }
        const qdb::Table *table = standin::TableFor(type, values.get());
        ASSERT_NE(table, nullptr);
        found.emplace(type, table->name);
        ExpectReadable(*table, bytes);
    }
    EXPECT_EQ(found, wanted);
}

TEST(StandinObjects, ChangesColumnsAsABuildFromAllOfThemWould)
{
    const char *first =
        R"({"Speed":2400,"Rank":1,"fqdd":"DIMM.1","UpdateTime":5,
                            "Key":"old"})";
    const char *changes[] = {
        R"({"Speed":3200,"UpdateTime":-1})",
        R"({"Rank":2,"fqdd":"DIMM.11"})",
        R"({"UpdateTime":null})",
        R"({"Key":"new","DOH_ObjStatus":4})",
    };
    const Json all = Parse(first);
    standin::Reset();
    standin::ObjectSpec spec;
    spec.type = 0xE1;
    spec.oid = 50;
    spec.values = all.get();
    ASSERT_EQ(standin::CreateObject(spec, false), "");
    for (const char *change : changes)
    {
        SCOPED_TRACE(change);
        const Json values = Parse(change);
        ASSERT_EQ(standin::SetObject(50, values.get(), false), "");
        const char *name = nullptr;
        json_t *value = nullptr;
        json_object_foreach(values.get(), name, value)
        {
            json_object_del(all.get(), name);
            json_object_set(all.get(), name, value);
        }
        std::string error;
        const Bytes expected =
            standin::BuildObject({.type = 0xE1, .oid = 50}, all.get(), &error);
        EXPECT_EQ(standin::ObjectBytes(50), expected);
    }
    EXPECT_NE(Owned<DataObjHeader>(ZOILGetObjByKey("new")), nullptr);
    const Bytes before = standin::ObjectBytes(50);
    EXPECT_NE(standin::SetObject(50, Parse(R"({"Speed":1,"Rank":999})").get()),
              "");
    EXPECT_EQ(standin::ObjectBytes(50), before);
}

} // namespace

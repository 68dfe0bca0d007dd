// Plausible contents for objects.
//
// A column's name says what it means: of the lists below the first entry whose
// part occurs in the name decides. What varies comes from a hash of the
// column's name and the OID.
#include "standin/generator.h"

#include "standin/layout.h"
#include "standin/object_builder.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <string_view>

namespace standin
{
namespace
{

using qdb::ArrayProperty;
using qdb::Column;
using qdb::FormKind;
using qdb::Join;

struct Numbers
{
    const char *part; // of the name, in lower case
    uint64_t least;
    uint64_t greatest;
};

// clang-format off
constexpr Numbers kNumbers[] = {
    {"pad",         0,          0},
    {"reserved",    0,          0},
    {"extflags",    0,          0},
    {"temp",        20,         60},
    {"percent",     0,          100},
    {"utilization", 0,          100},
    {"usage",       0,          100},
    {"endurance",   80,         100},
    {"clock",       800,        3600},
    {"speed",       1000,       6400},
    {"rpm",         4000,       12000},
    {"voltage",     11,         13},
    {"volt",        11,         13},
    {"amp",         1,          6},
    {"power",       100,        750},
    {"pwr",         100,        750},
    {"watt",        100,        750},
    {"time",        1700000000, 1720000000},
    {"date",        1700000000, 1720000000},
    {"status",      1,          3},
    {"health",      1,          3},
    {"state",       0,          3},
    {"vendorid",    0x1000,     0x1FFF},
    {"deviceid",    0x1000,     0x1FFF},
    {"capacity",    8192,       65536},
    {"size",        1024,       1048576},
    {"count",       1,          64},
    {"num",         1,          64},
    {"err",         0,          2},
    {"read",        1000,       9000000},
    {"write",       1000,       9000000},
    {"bytes",       1000,       900000000},
    {"pkts",        1000,       900000000},
    {"",            0,          100},
};
// clang-format on

constexpr std::string_view kDeviceName = "device"; // a name from kDevices
constexpr std::string_view kKeyName = "key";       // the same, behind the type
constexpr std::string_view kPlainName = "plain";   // the column's name

// '#' stands for a digit and '@' for a hexadecimal digit.
struct Texts
{
    const char *part;
    std::string_view form;
};

// clang-format off
constexpr Texts kTexts[] = {
    {"pad",          ""},
    {"reserved",     ""},
    {"keystart",     ""},
    {"friendly",     "Device in slot #"},
    {"fqdd",         kDeviceName},
    {"key",          kKeyName},
    {"date",         "202#-0#-1#"},
    {"valid",        "202#-0#-1#T08:00:00"},
    {"timestr",      "202#-0#-1#T08:1#:2#"},
    {"serial",       "SN@@@@@@@@"},
    {"servicetag",   "7@@@@#X"},
    {"assettag",     "AT-#####"},
    {"guid",         "4c4c4544-00@@-10@@-80@@-c#c04f@@@@@@"},
    {"uuid",         "4c4c4544-00@@-10@@-80@@-c#c04f@@@@@@"},
    {"hash",         "@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@"},
    {"sha",          "@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@"},
    {"thumb",        "@@@@@@@@@@@@@@@@@@@@"},
    {"mac",          "02:00:5e:@@:@@:@@"},
    {"ipv6",         "2001:db8::@@"},
    {"subnet",       "255.255.255.0"},
    {"dhcp",         "192.0.2.1#"},
    {"ipaddr",       "192.0.2.1#"},
    {"url",          "https://192.0.2.1#/"},
    {"wwn",          "20:00:00:10:9b:@@:@@:@@"},
    {"wwpn",         "10:00:00:10:9b:@@:@@:@@"},
    {"version",      "#.1#.#"},
    {"fwver",        "#.1#.#"},
    {"rev",          "A0#"},
    {"part",         "0K@@@@"},
    {"manufactur",   "Example Devices"},
    {"vendor",       "Example Devices"},
    {"family",       "B#"},
    {"size",         "#### KB"},
    {"time",         "####"},
    {"state",        "State #"},
    {"status",       "OK"},
    {"location",     "System board #"},
    {"value",        "Enabled"},
    {"current_",     "Enabled"},
    {"pending_",     "Enabled"},
    {"default_",     "Disabled"},
    {"country",      "XX"},
    {"",             kPlainName},
};

// By parts of the table's name.
constexpr Texts kDevices[] = {
    {"memory",     "DIMM.Socket.A%u"},
    {"processor",  "CPU.Socket.%u"},
    {"cache",      "CPU.Socket.%u:Cache.1"},
    {"physical",   "Disk.Bay.%u:Enclosure.Internal.0-1:RAID.Slot.1-1"},
    {"smart",      "Disk.Bay.%u:Enclosure.Internal.0-1:RAID.Slot.1-1"},
    {"virtual",    "Disk.Virtual.%u:RAID.Slot.1-1"},
    {"enclosure",  "Enclosure.Internal.%u-1:RAID.Slot.1-1"},
    {"battery",    "Battery.Integrated.%u:RAID.Slot.1-1"},
    {"raid",       "RAID.Slot.%u-1"},
    {"nic",        "NIC.Integrated.%u-1-1"},
    {"sfp",        "NIC.Integrated.%u-1-1"},
    {"logicalnet", "NIC.Integrated.%u-1-1"},
    {"infiniband", "InfiniBand.Slot.%u-1"},
    {"fc_",        "FC.Slot.%u-1"},
    {"gpu",        "Video.Slot.%u-1"},
    {"fan",        "Fan.Embedded.%u"},
    {"power",      "PSU.Slot.%u"},
    {"bios",       "BIOS.Setup.%u-1"},
    {"pci",        "Slot.PCIe.%u"},
    {"",           "System.Embedded.%u"},
};
// clang-format on

std::string Lower(const char *text)
{
    std::string lower(text);
    std::ranges::transform(lower, lower.begin(),
                           [](unsigned char c)
                           {
                               return static_cast<char>(std::tolower(c));
                           });
    return lower;
}

// The last entry fits any name.
template <typename Entry, size_t N>
const Entry &FindPart(const Entry (&entries)[N], const char *name)
{
    const std::string lower = Lower(name);
    size_t index = 0;
    while (index + 1 < N &&
           lower.find(entries[index].part) == std::string::npos)
    {
        ++index;
    }
    return entries[index];
}

// A well-mixed number that follows from a name and a number.
uint64_t Hash(std::string_view name, uint64_t salt)
{
    uint64_t hash = 0xCBF29CE484222325;
    const auto mix = [&](uint64_t value)
    {
        hash = (hash ^ value) * 0x100000001B3;
    };
    for (const char c : name)
    {
        mix(static_cast<unsigned char>(c));
    }
    mix(salt);
    mix(salt >> 8);
    return hash ^ hash >> 29;
}

std::string Spell(std::string_view form, uint64_t hash)
{
    std::string text(form);
    for (char &c : text)
    {
        if (c == '#' || c == '@')
        {
            c = "0123456789abcdef"[hash % (c == '#' ? 10 : 16)];
            hash = std::rotr(hash, 4);
        }
    }
    return text;
}

struct Subject
{
    uint16_t type;
    uint32_t oid;
    const qdb::Table &table;
};

std::string DeviceName(const Subject &subject)
{
    std::string name(FindPart(kDevices, subject.table.name).form);
    return name.replace(name.find("%u"), 2,
                        std::to_string(subject.oid % 0x10000));
}

json_t *Integer(const Column &column, uint64_t salt)
{
    const uint64_t most = RangeOf(column.source).Greatest();
    Numbers range = FindPart(kNumbers, LeafName(column.name));
    if (range.greatest > most)
    {
        range = {"", 0, std::min(most, uint64_t{100})};
    }
    const uint64_t number =
        range.least +
        Hash(column.name, salt) % (range.greatest - range.least + 1);
    return json_integer(static_cast<json_int_t>(number));
}

std::string Text(const Subject &subject, const Column &column, uint64_t salt)
{
    const char *leaf = LeafName(column.name);
    const std::string_view form = FindPart(kTexts, leaf).form;
    return form == kPlainName    ? Print("%s %u", leaf, subject.oid % 100)
           : form == kDeviceName ? DeviceName(subject)
           : form == kKeyName
               ? Print("%X||%s", subject.type, DeviceName(subject).c_str())
               : Spell(form, Hash(column.name, salt));
}

// The salt distinguishes the elements of an array. NULL for an empty text.
json_t *Value(const Subject &subject, const Column &column, size_t room,
              uint64_t salt)
{
    const FormKind kind = KindOf(column.source.form);
    if (kind == FormKind::Integer)
    {
        return Integer(column, salt);
    }
    if (kind == FormKind::Real)
    {
        return json_real(static_cast<double>(Hash(column.name, salt) % 1000) /
                         8);
    }
    const std::string text = Text(subject, column, salt).substr(0, room - 1);
    return text.empty() ? nullptr : json_string(text.c_str());
}

json_t *List(const Subject &subject, const Column &column)
{
    switch (column.source.join)
    {
    case Join::PossibleValues:
        return json_pack("[s,s,s]", "Enabled", "Disabled", "Auto");
    case Join::DisplayValues:
        return json_pack("[s,s,s]", "On", "Off", "Automatic");
    case Join::DnsServers:
        return json_pack("[s,s,s]", "192.0.2.1", "2001:db8::1", "192.0.2.2");
    case Join::Gateways:
        return json_pack("[s]", "198.51.100.1");
    default:
        return json_pack("[s,s]", DeviceName(subject).c_str(), "NIC.Slot.1-1");
    }
}

json_t *Array(const Subject &subject, const ArrayProperty &array)
{
    const auto &side = *array.table;
    const size_t count = array.fixedCount == 0
                             ? 2 + subject.oid % 2
                             : FreeElements(subject.table, array);
    json_t *elements = json_array();
    for (size_t i = 0; i < count; ++i)
    {
        const uint64_t salt = subject.oid + 0x1000003 * (i + 1);
        json_t *element = json_object();
        for (const Column &column : side.columns)
        {
            const size_t room = TextRoom(side, column.source.offset);
            json_object_set_new(element, column.name,
                                Value(subject, column, room, salt));
        }
        json_array_append_new(elements, element);
    }
    return elements;
}

void Fill(const Subject &subject, json_t *values)
{
    const qdb::Table &table = subject.table;
    for (const Column &column : table.columns)
    {
        const qdb::Source &source = column.source;
        const FormKind kind = KindOf(source.form);
        json_t *value = nullptr;
        if (kind == FormKind::List)
        {
            value = List(subject, column);
        }
        else if (HasField(source) &&
                 (kind != FormKind::Integer || IsFree(table, column)))
        {
            const size_t room = kind == FormKind::Text
                                    ? TextRoom(table, source.offset)
                                    : SIZE_MAX;
            value = Value(subject, column, room, subject.oid);
        }
        if (value != nullptr)
        {
            json_object_set_new(values, column.name, value);
        }
    }
    for (const ArrayProperty &array : table.arrays)
    {
        json_object_set_new(values, array.name, Array(subject, array));
    }
}

} // namespace

Json GenerateValues(uint16_t type, uint32_t oid, bool isFirst)
{
    Json values(
        json_pack("{s:i}", kStatusColumn, 1 + static_cast<int>(oid % 3)));
    if (type == 0x31B)
    {
        json_object_set_new(values.get(), "protocol",
                            json_integer(isFirst ? 0x40 : 0x10));
        json_object_set_new(values.get(), "attributes", json_integer(2));
    }
    if (type == 0x45)
    {
        json_object_set_new(values.get(),
                            isFirst ? kNestedSlotType : "slotType",
                            json_integer(isFirst ? 7 : 1));
    }
    if (const qdb::Table *table = TableFor(type, values.get()))
    {
        Fill({type, oid, *table}, values.get());
    }
    return values;
}

} // namespace standin

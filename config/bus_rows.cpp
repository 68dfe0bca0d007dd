#include "config/bus_rows.h"

#include "config/config_objects.h"

#include <cstring>

namespace qdb
{
namespace
{

consteval size_t IndexOf(uint32_t objType)
{
    size_t index = 0;
    while (ObjectTypeTable[index].objType != objType)
    {
        ++index;
    }
    return index;
}

template <uint32_t Type>
constexpr const ObjTypeRow *RowOf()
{
    return &ObjectTypeTable[IndexOf(Type)];
}

} // namespace

constexpr std::array<BusRow, 4> DBusObj_Notification_Map_Table = {{
    {kIntInterface, TYPE_CFGINT, "TYPE_CFGINT", RowOf<TYPE_CFGINT>()},
    {kStrInterface, TYPE_CFGSTR, "TYPE_CFGSTR", RowOf<TYPE_CFGSTR>()},
    {kEnumInterface, TYPE_CFGENUM, "TYPE_CFGENUM", RowOf<TYPE_CFGENUM>()},
    {kPasswdInterface, TYPE_CFGPASSWD, "TYPE_CFGPASSWD",
     RowOf<TYPE_CFGPASSWD>()},
}};

const BusRow *FindBusRow(const char *interfaceName)
{
    for (const BusRow &row : DBusObj_Notification_Map_Table)
    {
        if (std::strcmp(row.interfaceName, interfaceName) == 0)
        {
            return &row;
        }
    }
    return nullptr;
}

} // namespace qdb

#include "config/bus_rows.h"

#include <algorithm>
#include <string_view>

namespace qdb
{
namespace
{

template <uint32_t Type>
consteval const ObjTypeRow *RowOf()
{
    return &*std::ranges::find(ObjectTypeTable, Type, &ObjTypeRow::objType);
}

template <typename Test>
const BusRow *FindIf(Test test)
{
    const auto row = std::ranges::find_if(DBusObj_Notification_Map_Table, test);
    return row == DBusObj_Notification_Map_Table.end() ? nullptr : &*row;
}

} // namespace

constinit const std::array<BusRow, 4> DBusObj_Notification_Map_Table = {{
    {kIntInterface, "CfgIntAttribute", "TYPE_CFGINT",
     CfgIntAttribute_get_object, RowOf<TYPE_CFGINT>()},
    {kStrInterface, "CfgStrAttribute", "TYPE_CFGSTR",
     CfgStrAttribute_get_object, RowOf<TYPE_CFGSTR>()},
    {kEnumInterface, "CfgEnumAttribute", "TYPE_CFGENUM",
     CfgEnumAttribute_get_object, RowOf<TYPE_CFGENUM>()},
    {kPasswdInterface, "CfgPasswdAttribute", "TYPE_CFGPASSWD",
     CfgPasswdAttribute_get_object, RowOf<TYPE_CFGPASSWD>()},
}};

const BusRow *FindBusRow(const char *interfaceName)
{
    return FindIf(
        [&](const BusRow &row)
        {
            return std::string_view(row.interfaceName) == interfaceName;
        });
}

const BusRow *FindBusRow(uint32_t objType)
{
    return FindIf(
        [&](const BusRow &row)
        {
            return row.row->objType == objType;
        });
}

} // namespace qdb

// The four attribute interfaces: all that differs from one to the other.
#pragma once

#include "config/config_objects.h"
#include "objects/catalogue.h"

#include <array>

namespace qdb
{

struct BusRow
{
    const char *interfaceName;
    const char *shortName;
    const char *nameInLog; // of the type
    int (*getObject)(const char *service, const char *path,
                     DataObjHeader **ppDOH);
    const ObjTypeRow *row;
};

extern const std::array<BusRow, 4> DBusObj_Notification_Map_Table;

// The row of an interface, or of a type; NULL for any other.
const BusRow *FindBusRow(const char *interfaceName);
const BusRow *FindBusRow(uint32_t objType);

} // namespace qdb

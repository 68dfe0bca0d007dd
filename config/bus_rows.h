// The four attribute interfaces and the catalogue rows behind them.
#pragma once

#include "objects/catalogue.h"

#include <array>

namespace qdb
{

struct BusRow
{
    const char *interfaceName;
    uint32_t objType;
    const char *nameInLog;
    const ObjTypeRow *row;
};

extern const std::array<BusRow, 4> DBusObj_Notification_Map_Table;

// The row of an interface; NULL for any other name.
const BusRow *FindBusRow(const char *interfaceName);

} // namespace qdb

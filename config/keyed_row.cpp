#include "config/keyed_row.h"

#include "config/config_objects.h"
#include "config/presence_check.h"
#include "core/log.h"
#include "core/status.h"

namespace qdb
{
namespace
{

// A check that fails tells nothing, and the row counts as present.
bool IsMissing(const KeyedRow &row)
{
    int count = 0;
    switch (row.objType)
    {
    case TYPE_CFGINT:
        return CheckCfgNCIntObjPresenceInDB(row.key, &count) == SQLITE_OK &&
               count == 0;
    case TYPE_CFGSTR:
        return CheckCfgNCStrObjPresenceInDB(row.key, &count) == SQLITE_OK &&
               count == 0;
    default:
        return false;
    }
}

} // namespace

RowWrite ChooseWrite(const KeyedRow &row, const DataObjHeader *pDOH,
                     const char *function)
{
    const Difference difference = row.cached.Compare(pDOH);
    if (difference == Difference::NoCopy)
    {
        QDB_LOG(kLogTrace,
                "%s: %s: No previous record. Add entry. Refresh Obj.\n",
                function);
        return RowWrite::Refresh;
    }
    if (IsMissing(row))
    {
        QDB_LOG(kLogError, "%s: %s: ROw is not present. Insert the row. \n",
                function);
        return RowWrite::Insert;
    }
    switch (difference)
    {
    case Difference::Size:
        QDB_LOG(kLogTrace,
                "%s: %s: Data size mismatch. Update entry. Refresh Obj.\n",
                function);
        return RowWrite::Refresh;
    case Difference::Bytes:
        QDB_LOG(kLogTrace,
                "%s: %s: memcmp mismatch. Update entry. Refresh Obj. \n",
                function);
        return RowWrite::Refresh;
    default:
        return RowWrite::None;
    }
}

} // namespace qdb

#include "config/key_reload.h"

#include "core/fate.h"
#include "core/log.h"
#include "core/object_order.h"
#include "core/platform_ptr.h"
#include "core/status.h"
#include "db/execute.h"
#include "db/mapping.h"
#include "objects/handlers.h"

namespace qdb
{
namespace
{

constexpr char kReload[] = "ReLoadCfgKeyBasedNCObjects";
constexpr char kHandling[] = "CfgKeyBasedNCObjRefreshHandling";

KeyedRow CfgKeyBasedNCObjTable[] = {
    {"Tarnu.Embedded.1#SerialCapture.1#SerialDataSize",
     "/com/vexo/tarnu/Config/Attributes/tarnu_embedded_1/serialcapture_1/"
     "serialdatasize",
     TYPE_CFGINT},
    {"System.Embedded.1#ServerOS.1#ServerPoweredOnTime",
     "/com/vexo/tarnu/Config/Attributes/system_embedded_1/serveros_1/"
     "serverpoweredontime",
     TYPE_CFGINT},
    {"System.Embedded.1#Diagnostics.1#OSAppCollectionTime",
     "/com/vexo/tarnu/Config/Attributes/system_embedded_1/diagnostics_1/"
     "osappcollectiontime",
     TYPE_CFGSTR},
    {"System.Embedded.1#SystemInfo.1#BootTime",
     "/com/vexo/tarnu/Config/Attributes/system_embedded_1/systeminfo_1/"
     "boottime",
     TYPE_CFGSTR},
    {"System.Embedded.1#SystemInfo.1#SysTime",
     "/com/vexo/tarnu/Config/Attributes/system_embedded_1/systeminfo_1/"
     "systime",
     TYPE_CFGSTR},
};

int FetchAttribute(const KeyedRow &row, ConfigObjectPtr *ppObject)
{
    DataObjHeader *object = nullptr;
    const int status = dbus_get_data_obj_hdr(row.objType, row.path, &object);
    ppObject->reset(object);
    NoteWhetherThere(object);
    return status;
}

// Creates the row, under the attribute's group or, without one, under nothing.
int Insert(const KeyedRow &row, const DataObjHeader *object)
{
    DataObjHeader *found = nullptr;
    const int status = GetCfgGroupByPath(row.path, &found);
    const ConfigObjectPtr group(found);
    if (status == SQLITE_OK && group != nullptr)
    {
        QDB_LOG(kLogTrace, "%s: %s: Parent Object found pParentDOH=%d\n",
                kHandling, StoredOid(group->objID));
    }
    else
    {
        QDB_LOG(kLogTrace, "%s: %s: Parent Object not found\n", kHandling);
        NoteLack();
    }
    QDB_LOG(kLogError, "%s: Insert the row\n");
    return CreateObject(*FindRow(row.objType), object, group.get());
}

// After a write found the object unreadable: a new object ends the pass for
// this row, and the next pass will find what differs.
int FetchAgain(const KeyedRow &row, ConfigObjectPtr *ppObject)
{
    QDB_LOG(kLogTrace, "%s: %s: ZO_STATUS_INVALID_VALUE returned\n", kHandling);
    ppObject->reset();
    const int status = FetchAttribute(row, ppObject);
    if (status == 0 && *ppObject != nullptr)
    {
        return SQLITE_OK;
    }
    QDB_LOG(kLogTrace, "%s: %s: not able to fetch object %d\n", kHandling,
            status);
    return ZO_STATUS_NO_SUCH_OBJECT;
}

int ReloadRow(size_t rowIndex)
{
    const BookEntry entry(Road::Reload);
    const KeyedRow &row = CfgKeyBasedNCObjTable[rowIndex];
    QDB_LOG(kLogTrace, "%s: %s: key=%s\n", kReload, row.key);
    QDB_LOG(kLogTrace, "%s: %s: path=%s\n", kReload, row.path);
    ConfigObjectPtr object;
    const int status = FetchAttribute(row, &object);
    if (status != 0 || object == nullptr)
    {
        QDB_LOG(kLogTrace,
                "%s: %s:dbus_get_data_obj_hdr err:%d, type:%d, key:%s\n",
                kReload, status, static_cast<int>(row.objType), row.key);
        return ZO_STATUS_NO_SUCH_OBJECT;
    }
    const RowWrite write = ChooseWrite(row, object.get(), kReload);
    NoteFate(Fate::Unchanged);
    return write == RowWrite::None
               ? SQLITE_OK
               : CfgKeyBasedNCObjRefreshHandling(&object, rowIndex, write);
}

} // namespace

int ReLoadCfgKeyBasedNCObjects()
{
    QDB_LOG(kLogTrace, "%s: Entering %s\n", kReload);
    int status = SQLITE_OK;
    for (size_t i = 0; i < std::size(CfgKeyBasedNCObjTable); ++i)
    {
        status = ReloadRow(i);
        if (status == kNoMemory)
        {
            return status;
        }
    }
    QDB_LOG(kLogTrace, "%s: Exiting %s\n", kReload);
    return status;
}

int CfgKeyBasedNCObjRefreshHandling(ConfigObjectPtr *ppObject, size_t rowIndex,
                                    RowWrite write)
{
    if (ppObject == nullptr || *ppObject == nullptr)
    {
        QDB_LOG(kLogError, "%s: %s: Invalid Parameter pDOH=NULL\n", kHandling);
        return ZO_STATUS_INVALID_VALUE;
    }
    KeyedRow &row = CfgKeyBasedNCObjTable[rowIndex];
    if (!row.cached.Store(ppObject->get()))
    {
        NoteFate(Fate::NoMemory);
        QDB_LOG(kLogError, "%s: %s: Memory allocation failed\n", kHandling);
        return kNoMemory;
    }
    const FetchesAgain fetchesAgain;
    const int status = RunStatusLoop(
        {.pauseWhenBusy = false}, SQLITE_OK,
        [&]
        {
            return write == RowWrite::Insert
                       ? Insert(row, ppObject->get())
                       : RefreshObject(*FindRow(row.objType), ppObject->get(),
                                       nullptr);
        },
        [&]
        {
            return FetchAgain(row, ppObject);
        });
    return IsSuccess(status) ? SQLITE_OK : FailureOf(status);
}

} // namespace qdb

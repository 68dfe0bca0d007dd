#include "core/log.h"
#include "core/paths.h"
#include "core/state.h"
#include "publish/telemetry.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstring>

namespace qdb
{
namespace
{

constexpr size_t kLineSize = 4096;

bool StartsWith(const char *text, const char *prefix)
{
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

} // namespace

void TelemetryUpdateHook(void * /*userData*/, int operation,
                         const char *databaseName, const char *tableName,
                         long long rowid)
{
    if (rowid < 1 || tableName == nullptr || databaseName == nullptr)
    {
        QDB_LOG(kLogInvalid, "%s: One or some of the input parameters are "
                             "incorrect. Exiting\n");
        return;
    }
    if (gDMDetachClearing == 1 && operation == SQLITE_DELETE)
    {
        return;
    }
    if (StartsWith(tableName, "TblEtag"))
    {
        return;
    }
    FormatTelemetryLine(operation, tableName, rowid);
}

void FormatTelemetryLine(int operation, const char *tableName, long long rowid)
{
    if (StartsWith(tableName, "ActiveOIDMapping") ||
        StartsWith(tableName, "ParentChildMapping") ||
        std::strstr(tableName, "ARR_Tbl") != nullptr)
    {
        return;
    }
    QDB_LOG(kLogTrace, "%s:  Operation type %d, Table %s, rowid %lld\n",
            operation, tableName, rowid);
    char line[kLineSize];
    std::snprintf(line, sizeof(line), "||%s|%s|%lld|%d||", kDatabaseName,
                  tableName, rowid, operation);
    PublishTelemetryLine(line);
}

void PublishTableGone(const char *tableName)
{
    char line[kLineSize] = {};
    std::snprintf(line, sizeof(line), "||%s|%s|%d|%d||", kDatabaseName,
                  tableName, 0, SQLITE_DELETE);
    PublishTelemetryLine(line);
}

// clang-format off
const std::array<const char *, kDetachTableCount> TelemetryDetachTableList = {
    "TblRTStatus_Root_Obj",
    "TblRAID_EnclosurePSU",
    "TblMCUFWInvTarsierObj",
    "TblRAID_Root_Obj",
    "TblHealthStatusObj",
    "TblOSLogicalNetworkIntfObj",
    "TblRAID_Adapter",
    "TblSubSystemStatusObj",
    "TblKORBAModuleObj",
    "TblPowerSupplySlotObj",
    "TblHII_String_Obj",
    "TblfirmimgHash_data",
    "TblRAID_EnclosureTempProbe",
    "TblFaultEntryObj",
    "TblThermalHistoryObj",
    "TblInfiniBand_RDMA_Stats_Obj",
    "Tblcert_data",
    "TblRAID_PDSmartData_NVMe",
    "TblIntAttribute",
    "TblBIOS_Boot_Device_Obj",
    "TblTarnuInfoObj",
    "TblFanCommonObj",
    "TblInfiniBand_Standard_Obj",
    "TblRAID_EmptySlot",
    "TblGPUHealthObj",
    "TblFC_Cap_Obj",
    "TblTarsierAirFilterObj",
    "TblNic_Port_Stats_Obj",
    "TblHII_Passwd_Obj",
    "TblSDPMStatusObj",
    "TblTarsierPowerObj",
    "TblMemoryInfo",
    "TblHII_Integer_Obj",
    "TblOEMFRUObj",
    "TblRAID_EMM",
    "TblRAID_HA_Pair",
    "TbllmRootDataObj",
    "TblNic_Cap_Obj",
    "TblHVXStatusObj",
    "TblRAID_Enclosure",
    "TblSDPortObj",
    "TblJobControlInfoObj",
    "TblAcceleratorStateSensorObj",
    "TblRAID_Driver",
    "TblDevBLT",
    "TblPCISystemSlotObj",
    "TblPLDMStateSensorObj",
    "TblBrolet_Teradici_Obj",
    "TblJobControlTaskIDObj",
    "TblPlugin_staticData_Obj",
    "TblIntrusionObj",
    "TblNic_Connection_View_Obj",
    "TblSystemInfo",
    "TblDevCache",
    "TblPlugin_dynamicData_Obj",
    "TblJobControlObj",
    "TblHostPowerOnStatusObj",
    "TblRAID_Battery",
    "TblPCIeSwitchCounter",
    "TblFC_Port_Stats_Obj",
    "TblEmptySlotObj",
    "TblNic_Standard_Obj",
    "TblUsageStatisticsObj",
    "TblBBO_Root_Obj",
    "TblDevUSB",
    "TblDevPCI",
    "TblFC_Standard_Obj",
    "TblBIOSFWInvTarsierObj",
    "TblInfiniBand_Port_Stats_Obj",
    "TblFRUObj",
    "TblNic_RDMA_Stats_Obj",
    "TblHIISensorInfo_obj",
    "TblStrAttribute",
    "TblSDBootObj",
    "TblKORBAObj",
    "TblSDCardObj",
    "TblPowerSupplyObj",
    "TblGPUInventoryObj",
    "TblSfp_Interface_Obj",
    "TblInfiniBand_Partition_Stats_Obj",
    "TblGPUStatisticsObj",
    "TblPowerConsumptionDataObj",
    "TblSfp_Sensor_Obj",
    "TblDevProcessor",
    "TblRAID_PDSmartData_SAS_SATA",
    "TblEnumAttribute",
    "TblBaseSoftwareInventoryObject",
    "TblRAID_BPFirmware",
    "TblSensorBaseType0Obj",
    "TblDMStatus_Child_Obj",
    "TblPLDMInventoryObj",
    "TblPCIeSwitchInventory",
    "TblHII_Enum_Obj",
    "TblNic_Partition_Stats_Obj",
    "TblBios_Standard_Obj",
    "TblCMFWInvPelagoObj",
    "Tblthp_thermal_sensor",
    "TblInfiniBand_Cap_Obj",
    "TblFanExtObj",
    "TblSoftwareInventoryMetaDataObject",
    "TblRAID_VirtualDisk",
    "TblDataObjRedundancy",
    "TblPasswdAttribute",
    "TblPCIeSwitchInventoryObj",
    "TblFPGAInventoryObj",
    "TblRANDPUExtendedFruObj",
    "TblMarbitPartitionObj",
    "TblAvgPowerConsumptionStatDataObj",
    "TblRAID_PhysicalDisk",
    "TblProbeObj",
    "TblRAID_EnclosureFan",
};
// clang-format on

} // namespace qdb

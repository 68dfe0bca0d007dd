#include "objects/schema/rows.h"
#include "publish/telemetry.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace qdb
{
namespace
{

// Readers know this order. A table that isn't here yet comes behind it.
// clang-format off
constexpr std::string_view kKnownOrder[] = {
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

// Calls `take` with the first row of each table that isn't in the list.
template <typename Take>
consteval void ForEachNewTable(Take take)
{
    for (const ObjTypeRow &row : ObjectTypeTable)
    {
        const auto isItsTable = [&](const ObjTypeRow &other)
        {
            return std::string_view(other.table->name) == row.table->name;
        };
        const auto &first = *std::ranges::find_if(ObjectTypeTable, isItsTable);
        if (std::string_view(first.suffix) == row.suffix &&
            std::ranges::find(kKnownOrder, row.table->name) ==
                std::end(kKnownOrder))
        {
            take(row);
        }
    }
}

consteval size_t CountNewTables()
{
    size_t count = 0;
    ForEachNewTable(
        [&](const ObjTypeRow & /*row*/)
        {
            ++count;
        });
    return count;
}

consteval auto MakeList()
{
    std::array<const char *, std::size(kKnownOrder) + CountNewTables()> list;
    auto *next = std::ranges::transform(kKnownOrder, list.begin(),
                                        &std::string_view::data)
                     .out;
    ForEachNewTable(
        [&](const ObjTypeRow &row)
        {
            *next++ = row.table->name;
        });
    return list;
}

constexpr auto kList = MakeList();

} // namespace

constinit const std::span<const char *const> TelemetryDetachTableList = kList;

} // namespace qdb

// The eight side tables and the array properties that they hold.
//
// Data only. Offsets of side table columns count from the element's record.
// clang-format off
#pragma once

#include "objects/schema/table.h"

namespace qdb
{

inline constexpr Column kByteElement[]  = {{"VAL", U8(0)}};
inline constexpr Column kWordElement[]  = {{"VAL", U16(0)}};
inline constexpr Column kDWordElement[] = {{"VAL", U32(0)}};

inline constexpr Column kTemperatureRecord[] = {
    {"avgValue",      I8(0)},
    {"peakValue",     I8(1)},
    {"warnThreshold", I8(2)},
};
inline constexpr Column kHbmRecord[] = {
    {"cacheSize",       U64(0x12)},
    {"nonVolatileSize", U64(0x02)},
    {"size",            U16(0x00)},
    {"speed",           U16(0x1A)},
    {"type",            U8(0x1C)},
    {"volatileSize",    U64(0x0A)},
};
inline constexpr Column kIPv4Record[] = {
    {"ipAddr",     Text(0)},
    {"subnetMask", Text(32)},
};
inline constexpr Column kIPv6Record[] = {
    {"ipAddr",    Text(0)},
    {"prefixLen", U32(0x40)},
    {"scope",     U8(0x44)},
};

inline constexpr SideTable kHealthStatusSide     = {"INTEGERARR_TblHealthStatusObj", kByteElement, 1};
inline constexpr SideTable kRaidEnclosureSide    = {"INTEGERARR_TblRAID_Enclosure", kWordElement, 2};
inline constexpr SideTable kSoftwareMetaDataSide = {"INTEGERARR_TblSoftwareInventoryMetaDataObject", kDWordElement, 4};
inline constexpr SideTable kUsageStatisticsSide  = {"INTEGERARR_TblUsageStatisticsObj", kWordElement, 2};
inline constexpr SideTable kThermalHistorySide   = {"TemperatureDataARR_TblThermalHistoryObj", kTemperatureRecord, 3};
inline constexpr SideTable kDevProcessorSide     = {"HbmInfoARR_TblDevProcessor", kHbmRecord, 29};
inline constexpr SideTable kLogicalNetIPv4Side   = {"NetIntfIPv4InfoARR_TblOSLogicalNetworkIntfObj", kIPv4Record, 64};
inline constexpr SideTable kLogicalNetIPv6Side   = {"NetIntfIPv6InfoARR_TblOSLogicalNetworkIntfObj", kIPv6Record, 69};

inline constexpr const SideTable *kSideTables[] = {
    &kHealthStatusSide,   &kRaidEnclosureSide, &kSoftwareMetaDataSide, &kUsageStatisticsSide,
    &kThermalHistorySide, &kDevProcessorSide,  &kLogicalNetIPv4Side,   &kLogicalNetIPv6Side,
};

// name, side table, fixed count, count word, first element, offset word
inline constexpr ArrayProperty kHealthStatusArrays[] = {
    {"HealthStatusArray", &kHealthStatusSide, 20, 0, 0x18, 0},
};
inline constexpr ArrayProperty kRaidEnclosureArrays[] = {
    {"enclPartnerIDList", &kRaidEnclosureSide, 8, 0, 0x22C, 0},
};
inline constexpr ArrayProperty kSoftwareMetaDataArrays[] = {
    {"ObjTypeList", &kSoftwareMetaDataSide, 0, 0x10, 0x14, 0},
};
inline constexpr ArrayProperty kUsageStatisticsArrays[] = {
    {"usageHistStatistics_DOT_lastDay",  &kUsageStatisticsSide, 24, 0, 0xC1, 0},
    {"usageHistStatistics_DOT_lastHour", &kUsageStatisticsSide, 60, 0, 0x49, 0},
    {"usageHistStatistics_DOT_lastWeek", &kUsageStatisticsSide, 14, 0, 0xF1, 0},
};
inline constexpr ArrayProperty kThermalHistoryArrays[] = {
    {"tempDataLastDay",   &kThermalHistorySide, 24, 0, 0x62, 0},
    {"tempDataLastMonth", &kThermalHistorySide, 30, 0, 0xAA, 0},
    {"tempDataLastYear",  &kThermalHistorySide, 52, 0, 0x104, 0},
};
inline constexpr ArrayProperty kDevProcessorArrays[] = {
    {"Hbms", &kDevProcessorSide, 5, 0, 0x134, 0},
};
inline constexpr ArrayProperty kLogicalNetworkArrays[] = {
    {"IpV4Address", &kLogicalNetIPv4Side, 0, 0x1CB, 0, 0x1CF},
    {"IpV6Address", &kLogicalNetIPv6Side, 0, 0x1D3, 0, 0x1D7},
};

} // namespace qdb

// What of this machine is mirrored, and where each value is read.
#pragma once

#include "objects/schema/network_tables.h"
#include "objects/schema/storage_tables.h"
#include "objects/schema/system_tables.h"

#include <cstdint>
#include <span>

namespace qdb
{

enum class From
{
    Fqdd,
    Name, // of the thing
    Text,
    Decimal,
    Hex,
};

// Where a column's value comes from. Of several of one column the last that is
// there holds.
struct Field
{
    const char *column;
    From from;
    const char *file = ""; // behind the thing's path
    int64_t factor = 1;
    int64_t divisor = 1;
};

// clang-format off
inline constexpr Field kSystem[] = {
    {"fqdd",                From::Fqdd},
    {"HostName",            From::Text, "/proc/sys/kernel/hostname"},
    {"SysManufacturer",     From::Text, "/sys/class/dmi/id/sys_vendor"},
    {"SysProductName",      From::Text, "/sys/class/dmi/id/product_name"},
    {"ChassisManufacturer", From::Text, "/sys/class/dmi/id/chassis_vendor"},
    {"BIOSVersion",         From::Text, "/sys/class/dmi/id/bios_version"},
    {"BIOSReleaseDate",     From::Text, "/sys/class/dmi/id/bios_date"},
};
inline constexpr Field kProcessor[] = {
    {"fqdd",         From::Fqdd},
    {"friendlyFQDD", From::Fqdd},
};
inline constexpr Field kPciDevice[] = {
    {"fqdd",         From::Fqdd},
    {"friendlyFQDD", From::Name},
    {"vendorID",     From::Hex,     "/vendor"},
    {"deviceID",     From::Hex,     "/device"},
    {"subVendorID",  From::Hex,     "/subsystem_vendor"},
    {"subDeviceID",  From::Hex,     "/subsystem_device"},
    {"revisionID",   From::Hex,     "/revision"},
    {"maxLinkWidth", From::Decimal, "/max_link_width"},
};
inline constexpr Field kInterface[] = {
    {"ifName",        From::Name},
    {"ifDescription", From::Text,    "/ifalias"},
    {"macAddrStr",    From::Text,    "/address"},
    {"ifStatus",      From::Decimal, "/carrier"},
};
inline constexpr Field kCounters[] = {
    {"hdr_DOT_fqdd",                   From::Fqdd},
    {"hdr_DOT_ObjName",                From::Name},
    {"LinkStatus",                     From::Decimal, "/carrier"},
    {"ReceiveTotalBytes",              From::Decimal, "/statistics/rx_bytes"},
    {"ReceiveTotalUnicast",            From::Decimal, "/statistics/rx_packets"},
    {"ReceiveTotalMutlicast",          From::Decimal, "/statistics/multicast"},
    {"ReceiveErrorPktFCSErrors",       From::Decimal, "/statistics/rx_crc_errors"},
    {"DiscardedPkts",                  From::Decimal, "/statistics/rx_dropped"},
    {"TransmitTotalBytes",             From::Decimal, "/statistics/tx_bytes"},
    {"TransmitTotalUnicast",           From::Decimal, "/statistics/tx_packets"},
};
inline constexpr Field kDisk[] = {
    {"fqdd",                                    From::Fqdd},
    {"uSiObj_DOT_sbSiObj_DOT_BSInfo_DOT_FQDD",  From::Fqdd},
    {"hdr_DOT_objName",                         From::Name},
    {"manufactureName",                         From::Text,    "/device/vendor"},
    {"modelName",                               From::Text,    "/device/model"},
    {"revision",                                From::Text,    "/device/firmware_rev"},
    {"revision",                                From::Text,    "/device/rev"},
    {"serialNumber",                            From::Text,    "/serial"},
    {"serialNumber",                            From::Text,    "/device/serial"},
    {"blockSize",                               From::Decimal, "/queue/logical_block_size"},
    {"size",                                    From::Decimal, "/size", 512}, // in sectors, whatever the blocks are
};
// The kernel tells thousandths of a degree, probes tenths.
inline constexpr Field kTemperature[] = {
    {"FriendlyFQDD",                     From::Fqdd},
    {"ProbeLocation",                    From::Name},
    {"ProbeLocation",                    From::Text,    "_label"},
    {"probeReading",                     From::Decimal, "_input", 1, 100},
    {"probeThresholds_DOT_uncThreshold", From::Decimal, "_max",   1, 100},
    {"probeThresholds_DOT_ucThreshold",  From::Decimal, "_crit",  1, 100},
};
// clang-format on

// A kind of thing.
struct HostKind
{
    uint16_t type;
    const Table &table;
    const char *prefix; // of its fqdd
    const char *keyColumn;
    std::span<const Field> fields;

    // Of those that are found: there is one for each entry of the folder that
    // has a text in the file `needs`.
    const char *folder = "";
    const char *needs = "";
};

// clang-format off
inline constexpr HostKind kSystemKind = {0x91, kTblSystemInfo, "Host.", "Key", kSystem};
inline constexpr HostKind kProcessorKind = {0xD2, kTblDevProcessor, "Host.CPU.", "Key", kProcessor};
inline constexpr HostKind kUsageKind = {0x39, kTblUsageStatisticsObj, "Host.Usage.", "Key", {}};
inline constexpr HostKind kFoundKinds[] = {
    {0xE6,   kTblDevPCI,                  "Host.PCI.",  "Key",           kPciDevice, "/sys/bus/pci/devices/", "/vendor"},
    {0x1200, kTblOSLogicalNetworkIntfObj, "Host.NIC.",  "RootObjectKey", kInterface, "/sys/class/net/",       "/address"},
    {0x711,  kTblNic_Port_Stats_Obj,      "Host.NIC.",  "hdr_DOT_key",   kCounters,  "/sys/class/net/",       "/statistics/rx_bytes"},
    {0x304,  kTblRAID_PhysicalDisk,       "Host.Disk.", "uSiObj_DOT_sbSiObj_DOT_BSInfo_DOT_Key", kDisk, "/sys/block/", "/device/uevent"},
};
// In each folder of the folder one for each file temp*_input.
inline constexpr HostKind kTemperatureKind = {
    0x16, kTblProbeObj, "Host.Temp.", "Key", kTemperature, "/sys/class/hwmon/", "_input"};
// clang-format on

} // namespace qdb

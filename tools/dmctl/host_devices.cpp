// PCI devices and disks.
#include "objects/schema/storage_tables.h"
#include "objects/schema/system_tables.h"
#include "tools/dmctl/host_objects.h"

#include <algorithm>
#include <array>

namespace qdb
{

namespace
{

const char *PciClassName(int64_t baseClass)
{
    static constexpr std::array kNames = {
        "Unclassified device",
        "Mass storage controller",
        "Network controller",
        "Display controller",
        "Multimedia controller",
        "Memory controller",
        "Bridge",
        "Communication controller",
        "System peripheral",
        "Input device controller",
        "Docking station",
        "Processor",
        "Serial bus controller",
        "Wireless controller",
        "Intelligent controller",
        "Satellite communication controller",
        "Encryption controller",
        "Signal processing controller",
        "Processing accelerator",
    };
    const bool known =
        baseClass >= 0 && static_cast<size_t>(baseClass) < kNames.size();
    return known ? kNames[static_cast<size_t>(baseClass)] : "PCI device";
}

void PutClass(HostValues &values, int64_t classCode)
{
    values.Number("classCode", classCode >> 16 & 0xFF);
    values.Number("subclass", classCode >> 8 & 0xFF);
    values.Number("progIF", classCode & 0xFF);
    values.Text("description", PciClassName(classCode >> 16 & 0xFF));
}

void AddPciDevice(HostView &view, const std::string &address)
{
    // Domain, bus, device and function, as in 0000:3b:00.1.
    std::string separated = address;
    std::ranges::replace(separated, ':', ' ');
    std::ranges::replace(separated, '.', ' ');
    const std::vector<std::string> parts = Words(separated);
    if (parts.size() != 4)
    {
        return;
    }
    const HostFiles &files = view.Files();
    const std::string path = "/sys/bus/pci/devices/" + address + "/";
    const std::string fqdd = "Host.PCI." + address;
    HostValues values(kTblDevPCI);
    values.Text("Key", HostKey(0xE6, fqdd));
    values.Text("fqdd", fqdd);
    values.Text("friendlyFQDD", "PCI device " + address);
    values.Number("busNum", ParseNumber(parts[1], 16));
    values.Number("deviceNum", ParseNumber(parts[2], 16));
    values.Number("functionNum", ParseNumber(parts[3], 16));
    values.Number("vendorID", files.Number(path + "vendor", 16));
    values.Number("deviceID", files.Number(path + "device", 16));
    values.Number("subVendorID", files.Number(path + "subsystem_vendor", 16));
    values.Number("subDeviceID", files.Number(path + "subsystem_device", 16));
    values.Number("revisionID", files.Number(path + "revision", 16));
    values.Number("maxLinkWidth", files.Number(path + "max_link_width"));
    PutClass(values, files.Number(path + "class", 16).value_or(0));
    view.Add(HostKind::Pci, address, 0xE6, fqdd, values);
}

bool IsMemory(const std::string &disk)
{
    static constexpr std::array kPrefixes = {"loop", "ram", "zram"};
    return std::any_of(kPrefixes.begin(), kPrefixes.end(),
                       [&disk](const char *prefix)
                       {
                           return disk.starts_with(prefix);
                       });
}

// The first of the files that is there.
std::optional<std::string> FirstText(const HostFiles &files,
                                     const std::string &directory,
                                     std::initializer_list<const char *> names)
{
    for (const char *name : names)
    {
        std::optional<std::string> text = files.Text(directory + name);
        if (text)
        {
            return text;
        }
    }
    return std::nullopt;
}

void AddDisk(HostView &view, const std::string &disk)
{
    constexpr int64_t kSectorSize = 512; // of "size", whatever the disk's is
    const HostFiles &files = view.Files();
    const std::string path = "/sys/block/" + disk + "/";
    const std::string fqdd = "Host.Disk." + disk;
    HostValues values(kTblRAID_PhysicalDisk);
    values.Text("uSiObj_DOT_sbSiObj_DOT_BSInfo_DOT_Key", HostKey(0x304, fqdd));
    values.Text("uSiObj_DOT_sbSiObj_DOT_BSInfo_DOT_FQDD", fqdd);
    values.Text("fqdd", fqdd);
    values.Text("hdr_DOT_objName", disk);
    values.Text("manufactureName", files.Text(path + "device/vendor"));
    values.Text("modelName", files.Text(path + "device/model"));
    values.Text("revision",
                FirstText(files, path, {"device/rev", "device/firmware_rev"}));
    values.Text("serialNumber",
                FirstText(files, path, {"device/serial", "serial"}));
    values.Number("blockSize", files.Number(path + "queue/logical_block_size"));
    const int64_t sectors = files.Number(path + "size").value_or(0);
    values.Number("size",
                  std::clamp<int64_t>(sectors, 0, INT64_MAX / kSectorSize) *
                      kSectorSize);
    view.Add(HostKind::Disk, disk, 0x304, fqdd, values);
}

} // namespace

void CollectPciDevices(HostView &view)
{
    for (const std::string &address : view.Files().List("/sys/bus/pci/devices"))
    {
        AddPciDevice(view, address);
    }
}

void CollectDisks(HostView &view)
{
    for (const std::string &disk : view.Files().List("/sys/block"))
    {
        if (!IsMemory(disk))
        {
            AddDisk(view, disk);
        }
    }
}

} // namespace qdb

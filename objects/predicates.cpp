#include "objects/predicates.h"

#include "core/log.h"
#include "objects/object_view.h"

namespace qdb
{
namespace
{

constexpr size_t kProtocolAt = 0x20;
constexpr size_t kDriveAttributesAt = 0x748;
constexpr uint32_t kSolidState = 1u << 1;
constexpr size_t kSlotKindAt = 0x1C;
constexpr uint16_t kRaidSlot = 7;
constexpr size_t kDependencyOffsetAt = 0x4C;
constexpr uint16_t kMaxDependencyOffset = 0xFA0;
constexpr uint16_t kDependencyOffsetMask = 0xFFF;

enum Protocol : uint32_t
{
    kSas = 0x10,
    kSata = 0x20,
    kPcie = 0x40,
    kNvme = 0x100,
};

struct Drive
{
    uint32_t protocol;
    uint32_t attributes;
};

Drive ReadDrive(const DataObjHeader *pDOH, const char *function)
{
    const ObjectView object(pDOH);
    const Drive drive = {
        object.Read<uint32_t>(kProtocolAt).value_or(0),
        object.Read<uint32_t>(kDriveAttributesAt).value_or(0),
    };
    QDB_LOG(kLogTrace, "%s: %s: protocol = %d", function,
            static_cast<int>(drive.protocol));
    QDB_LOG(kLogTrace, "%s: %s: attributes = %d", function,
            static_cast<int>(drive.attributes));
    return drive;
}

bool IsRaidSlot(const DataObjHeader *pDOH)
{
    return ObjectView(pDOH).Read<uint16_t>(kSlotKindAt) == kRaidSlot;
}

} // namespace

int Is_NVMe(DataObjHeader *pDOH, const DataObjHeader * /*pParentDOH*/)
{
    const uint32_t protocol = ReadDrive(pDOH, "Is_NVMe").protocol;
    if (protocol != kPcie && protocol != kNvme)
    {
        return 1;
    }
    QDB_LOG(kLogTrace, "%s: %s:PCIe-NVMe", "Is_NVMe");
    return 0;
}

int Is_SAS_SATA(DataObjHeader *pDOH, const DataObjHeader * /*pParentDOH*/)
{
    const Drive drive = ReadDrive(pDOH, "Is_SAS_SATA");
    if (drive.protocol != kSas && drive.protocol != kSata)
    {
        return 1;
    }
    if ((drive.attributes & kSolidState) == 0)
    {
        QDB_LOG(kLogTrace, "%s: %s:SAS/SATA HDD drive. Skip adding in DB",
                "Is_SAS_SATA");
        return 1;
    }
    QDB_LOG(kLogTrace, "%s: %s:SAS/SATA SSD drive", "Is_SAS_SATA");
    return 0;
}

int Is_Raid_Empty_Slot_Obj(DataObjHeader *pDOH,
                           const DataObjHeader * /*pParentDOH*/)
{
    return IsRaidSlot(pDOH) ? 0 : 1;
}

int Is_Empty_Slot_Obj(DataObjHeader *pDOH, const DataObjHeader * /*pParentDOH*/)
{
    return IsRaidSlot(pDOH) ? 1 : 0;
}

int GetDependencyListOffsetHiiEnum(DataObjHeader *pDOH,
                                   const DataObjHeader * /*pParentDOH*/)
{
    const auto offset = ObjectView(pDOH).Read<uint16_t>(kDependencyOffsetAt);
    uint16_t repaired = offset.value_or(0);
    QDB_LOG(kLogTrace, "%s: Obj->dependency_list_offset - 0x%x", repaired);
    if (repaired > kMaxDependencyOffset)
    {
        repaired &= kDependencyOffsetMask;
        std::memcpy(reinterpret_cast<char *>(pDOH) + kDependencyOffsetAt,
                    &repaired, sizeof(repaired));
    }
    QDB_LOG(kLogTrace, "%s: Obj->dependency_list_offset - 0x%x", repaired);
    return 0;
}

bool Applies(const ObjTypeRow &row, DataObjHeader *pDOH,
             const DataObjHeader *pParentDOH)
{
    switch (row.match)
    {
    case Match::NvmeDrive:
        return Is_NVMe(pDOH, pParentDOH) == 0;
    case Match::SasSataDrive:
        return Is_SAS_SATA(pDOH, pParentDOH) == 0;
    case Match::RaidSlot:
        return Is_Raid_Empty_Slot_Obj(pDOH, pParentDOH) == 0;
    case Match::OtherSlot:
        return Is_Empty_Slot_Obj(pDOH, pParentDOH) == 0;
    case Match::SetupEnum:
        return GetDependencyListOffsetHiiEnum(pDOH, pParentDOH) == 0;
    case Match::Every:
        break;
    }
    return true;
}

} // namespace qdb

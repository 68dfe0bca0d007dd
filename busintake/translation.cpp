#include "busintake/translation.h"

#include "config/config_objects.h"
#include "core/log.h"
#include "core/state.h"
#include "core/statistics.h"
#include "platform/zo_base.h"
#include "queues/event_queue.h"
#include "queues/event_record.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <optional>

namespace qdb
{
namespace
{

// The fixed part of a bus record.
struct BusRecordHead
{
    DataEventHeader header;
    uint32_t thisEventType;
    uint32_t oid;
    uint32_t offsetPath;
    uint32_t offsetIntf;
};
static_assert(sizeof(BusRecordHead) == kBusFixedSize);
static_assert(offsetof(BusRecordHead, thisEventType) == kBusEventTypeAt);
static_assert(offsetof(BusRecordHead, oid) == kBusOidAt);
static_assert(offsetof(BusRecordHead, offsetPath) == kBusPathOffsetAt);
static_assert(offsetof(BusRecordHead, offsetIntf) == kBusInterfaceOffsetAt);

// The size of the record being built; in spite of its name no queue's. Only
// the signal thread writes it.
uint32_t qdvenQSize = 0;

uint32_t SizeOfText(const char *text)
{
    return static_cast<uint32_t>(std::strlen(text)) + 1;
}

std::optional<EventType> EventOfMember(const char *member)
{
    static constexpr struct
    {
        const char *member;
        EventType event;
    } kMembers[] = {
        {"InterfacesAdded", DATA_EVENT_DATA_OBJ_CREATE},
        {"qdb_object_removed", DATA_EVENT_DATA_OBJ_DESTROY},
        {"PropertiesChanged", DATA_EVENT_DATA_OBJ_DIRTY_LIST},
    };
    for (const auto &known : kMembers)
    {
        if (std::strcmp(known.member, member) == 0)
        {
            return known.event;
        }
    }
    return std::nullopt;
}

BusRecordHead MakeHead(EventType event, uint32_t size)
{
    BusRecordHead head = {};
    head.header.evtSize = size;
    head.header.evtType = DATA_EVENT_DBUS_TO_QDB;
    head.thisEventType = event;
    return head;
}

// Whether one more record from the bus may be queued; counts those that may
// not.
bool MayQueue(uint32_t size)
{
    const bool hasRoom = HasRoomForBusRecord(size);
    if (!hasRoom)
    {
        CountOne(Figures().dropped, DropCause::OverBound);
    }
    return hasRoom;
}

// Queues a bus record: the fixed part, and the texts at their offsets where it
// has any.
int Enqueue(const BusRecordHead &head, const char *interfaceName,
            const char *path)
{
    CountEvent(EventKind::Bus);
    char *record =
        MayQueue(head.header.evtSize)
            ? static_cast<char *>(std::calloc(1, head.header.evtSize))
            : nullptr;
    if (record == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: Failed to allocate memory for pDEH\n");
        return -ENOMEM;
    }
    std::memcpy(record, &head, sizeof(head));
    if (head.offsetIntf != 0)
    {
        std::memcpy(record + head.offsetIntf, interfaceName,
                    SizeOfText(interfaceName));
        std::memcpy(record + head.offsetPath, path, SizeOfText(path));
    }
    QDB_LOG(kLogTrace, "%s: Writing pDEH to the qdvQueue \n");
    QdbenQueue(gQdbEventQueue, reinterpret_cast<DataEventHeader *>(record));
    return 0;
}

} // namespace

int qdb_signal_notification_callback(const char *interfaceName,
                                     const char *member, const char *path,
                                     uint32_t oid)
{
    static constexpr char kName[] = "qdb_signal_notification_callback";
    QDB_LOG(kLogTrace, "%s: Enter [%s]\n", kName);
    const uint32_t interfaceSize = SizeOfText(interfaceName);
    qdvenQSize = kBusFixedSize + interfaceSize + SizeOfText(path);
    QDB_LOG(kLogTrace, "%s:  %s qdvenQSize [%d]  :: sigMsgLen [%d]\n", kName,
            static_cast<int>(qdvenQSize), 0);
    QDB_LOG(kLogTrace, "%s: member  [%s]\n", member);
    const std::optional<EventType> event = EventOfMember(member);
    if (!event)
    {
        QDB_LOG(kLogTrace,
                "%s: return as we did not get desired signal  [%s]\n", member);
        return -EINVAL;
    }
    BusRecordHead head = MakeHead(*event, qdvenQSize);
    head.oid = oid;
    head.offsetIntf = kBusFixedSize;
    head.offsetPath = kBusFixedSize + interfaceSize;
    QDB_LOG(kLogTrace, "%s:  %s offsetIntf[%d]  :: offsetPath [%d]\n", kName,
            static_cast<int>(head.offsetIntf),
            static_cast<int>(head.offsetPath));
    return Enqueue(head, interfaceName, path);
}

int qdb_signal_cfgmgr_restart_callback(const char *name)
{
    static constexpr char kName[] = "qdb_signal_cfgmgr_restart_callback";
    QDB_LOG(kLogTrace, "%s: Enter [%s]\n", kName);
    if (std::strcmp(name, kConfigService) != 0)
    {
        QDB_LOG(kLogError, "%s: return as we did not get desired signal [%s]\n",
                name);
        return -EINVAL;
    }
    QDB_LOG(kLogTrace, "%s:  %s dataEvtHdrSz [%d]\n", kName,
            static_cast<int>(sizeof(DataEventHeader)));
    return Enqueue(MakeHead(DATA_EVENT_POP_UNLOADED, kBusFixedSize), nullptr,
                   nullptr);
}

int HandleSignalRawDataUpdated(const char *key, const char *filePath)
{
    static constexpr char kName[] = "HandleSignalRawDataUpdated";
    LogEntry(kName);
    CountEvent(EventKind::RawData);
    const uint32_t keySize = SizeOfText(key);
    const uint32_t pathAt = kRawFixedSize + keySize;
    const uint32_t size = pathAt + SizeOfText(filePath);
    char *record =
        MayQueue(size) ? static_cast<char *>(ZOAllocMem(size)) : nullptr;
    if (record == nullptr)
    {
        QDB_LOG(kLogInvalid, "%s: %s: failed to alloc memory for data event\n",
                kName);
        LogExit(kName);
        return -ENOMEM;
    }
    DataEventHeader header = {};
    header.evtSize = size;
    header.evtType = ZO_EVENT_RAW_DATA_UPDATE;
    std::memcpy(record, &header, sizeof(header));
    std::memcpy(record + kRawKeyOffsetAt, &kRawFixedSize, sizeof(uint32_t));
    std::memcpy(record + kRawPathOffsetAt, &pathAt, sizeof(uint32_t));
    std::memcpy(record + kRawFixedSize, key, keySize);
    std::memcpy(record + pathAt, filePath, SizeOfText(filePath));
    QDB_LOG(kLogTrace, "%s: %s: enqueue ZO_EVENT_RAW_DATA_UPDATE for %s\n",
            kName, key);
    QdbenQueue(gQdbEventQueue, reinterpret_cast<DataEventHeader *>(record));
    LogExit(kName);
    return 0;
}

} // namespace qdb

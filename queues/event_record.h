// The format of event records, whatever their source: the Data Manager, the
// bus, or the service itself.
//
// Records are little-endian blocks that begin with a DataEventHeader. Offsets
// inside them count from their first byte. A reader below never looks beyond
// evtSize, and the owner of a record guarantees that evtSize bytes are there.
#pragma once

#include "core/statistics.h"
#include "platform/zoil.h"

#include <cstdint>
#include <cstring>
#include <optional>

namespace qdb
{

// On the wire between processes; not to be renumbered.
enum EventType : uint16_t
{
    DATA_EVENT_DATA_OBJ_DIRTY_LIST = 3,
    DATA_EVENT_OBJ_STATUS_CHG = 4,
    DATA_EVENT_DATA_OBJ_CREATE = 7,
    DATA_EVENT_DATA_OBJ_DESTROY = 8,
    DATA_EVENT_DM_DETACHED = 12,
    DATA_EVENT_POP_UNLOADED = 23, // only inside bus records
    DATA_EVENT_WORKER_EXIT = 1001,
    ZO_EVENT_RAW_DATA_UPDATE = 1130,
    DATA_EVENT_DBUS_TO_QDB = 65533,
};

// Records of these types are queued and dropped by the worker.
constexpr bool IsReservedEvent(uint16_t eventType)
{
    return eventType >= 3400 && eventType <= 3499;
}

// A 32-bit word of the record; nothing when it isn't wholly inside.
inline std::optional<uint32_t> RecordWord(const DataEventHeader &record,
                                          uint32_t offset)
{
    uint32_t word = 0;
    if (record.evtSize < sizeof(word) || offset > record.evtSize - sizeof(word))
    {
        return std::nullopt;
    }
    std::memcpy(&word, reinterpret_cast<const char *>(&record) + offset,
                sizeof(word));
    return word;
}

// A NUL-terminated text of the record; NULL when it doesn't end inside.
inline const char *RecordText(const DataEventHeader &record, uint32_t offset)
{
    const char *text = reinterpret_cast<const char *>(&record) + offset;
    return offset < record.evtSize &&
                   std::memchr(text, '\0', record.evtSize - offset) != nullptr
               ? text
               : nullptr;
}

// Object lists, types 3, 7 and 8: a count at 16, then that many OIDs.
inline constexpr uint32_t kObjCountAt = 16;
inline constexpr uint32_t kFirstOidAt = 20;
inline constexpr uint32_t kMaxObjCount = 4000;

// How many OIDs a list has; nothing when it can't be so many.
inline std::optional<uint32_t> ObjectCount(const DataEventHeader &record)
{
    const uint32_t count = RecordWord(record, kObjCountAt).value_or(0);
    return count > kMaxObjCount ||
                   kFirstOidAt + count * sizeof(uint32_t) > record.evtSize
               ? std::nullopt
               : std::optional(count);
}

// Status changes, type 4: a whole object from 20 on.
inline constexpr uint32_t kStatusObjectAt = 20;
inline constexpr uint32_t kMinStatusObjectSize = 16;

// The size of that object by its own word; 0 when the record doesn't hold so
// much.
inline uint32_t StatusObjectSize(const DataEventHeader &record)
{
    const uint32_t size = RecordWord(record, kStatusObjectAt).value_or(0);
    return size >= kMinStatusObjectSize &&
                   size <= record.evtSize - kStatusObjectAt
               ? size
               : 0;
}

// Raw data, type 1130: offsets of the key and of the file's path.
inline constexpr uint32_t kRawKeyOffsetAt = 16;
inline constexpr uint32_t kRawPathOffsetAt = 20;
inline constexpr uint32_t kRawFixedSize = 24;

// Bus records, type 65533: the kind of event (16 bits), the OID, and the
// offsets of the object's path and interface name.
inline constexpr uint32_t kBusEventTypeAt = 16;
inline constexpr uint32_t kBusOidAt = 20;
inline constexpr uint32_t kBusPathOffsetAt = 24;
inline constexpr uint32_t kBusInterfaceOffsetAt = 28;
inline constexpr uint32_t kBusFixedSize = 32;

// A restart of the configuration manager, which names no object.
inline bool ClearsConfiguration(const DataEventHeader &record)
{
    return record.evtType == DATA_EVENT_DBUS_TO_QDB &&
           static_cast<uint16_t>(
               RecordWord(record, kBusEventTypeAt).value_or(0)) ==
               DATA_EVENT_POP_UNLOADED;
}

// How many objects a record on the queue is about, for the books.
inline uint32_t ObjectsIn(const DataEventHeader &record)
{
    switch (record.evtType)
    {
    case DATA_EVENT_DATA_OBJ_DIRTY_LIST:
    case DATA_EVENT_DATA_OBJ_CREATE:
    case DATA_EVENT_DATA_OBJ_DESTROY:
        return ObjectCount(record).value_or(0);
    case DATA_EVENT_OBJ_STATUS_CHG:
        return 1;
    case DATA_EVENT_DBUS_TO_QDB:
        return ClearsConfiguration(record) ? 0 : 1;
    default:
        return 0;
    }
}

// The road that they are on.
inline Road RoadOf(const DataEventHeader &record)
{
    return record.evtType == DATA_EVENT_DBUS_TO_QDB ? Road::Bus
                                                    : Road::DataManager;
}

} // namespace qdb

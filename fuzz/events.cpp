// Event records through the listener and a worker. An input is a list of steps:
// objects of any bytes for the Data Manager, and records about these and
// others. A detach isn't among them: it starts a thread.
#include "config/config_objects.h"
#include "core/state.h"
#include "events/listener.h"
#include "events/workers.h"
#include "fuzz/support.h"
#include "queues/event_queue.h"
#include "queues/event_record.h"
#include "standin/standin.h"

#include <sqlite3.h>

#include <algorithm>

namespace qdb::fuzz
{
namespace
{

constexpr uint32_t kFirstRaw = 0x7000; // OIDs of objects from the input
constexpr uint32_t kRawCount = 8;
constexpr uint32_t kMostClaimed = 0x800;
constexpr int kMostSteps = 12;

constexpr uint16_t kListTypes[] = {3, 7, 8};
constexpr uint16_t kTypes[] = {3, 4, 7, 8, 1130, 3400, 65533};
constexpr uint32_t kKinds[] = {3, 7, 8, 23, 4};
constexpr const char *kKeys[] = {"A.1#B.1#I", "A.1#B.1#S", "A.1#B.1#E",
                                 "A.1#B.1#P"};
constexpr const char *kInterfaces[] = {kIntInterface, kStrInterface,
                                       kEnumInterface, kPasswdInterface};

using Record = std::vector<uint8_t>;

// One object of each type, one attribute of each interface.
bool FillManagers()
{
    Require(standin::GenerateObjects(159, {}, false).empty(), "objects");
    for (size_t i = 0; i < std::size(kKeys); ++i)
    {
        const std::string name = kInterfaces[i];
        Require(standin::PutAttribute(name.substr(name.rfind('.') + 1),
                                      kKeys[i], nullptr)
                    .empty(),
                name);
    }
    return true;
}

uint32_t Oid(Input *pInput)
{
    static const std::vector<uint32_t> oids = standin::ObjectIds();
    const uint8_t which = pInput->Byte();
    return which < oids.size() ? oids[which] : kFirstRaw + which % kRawCount;
}

void Append(Record *pRecord, uint32_t word)
{
    const auto *bytes = reinterpret_cast<const uint8_t *>(&word);
    pRecord->insert(pRecord->end(), bytes, bytes + sizeof(word));
}

void Append(Record *pRecord, const std::string &text)
{
    pRecord->insert(pRecord->end(), text.begin(), text.end());
    pRecord->push_back(0);
}

// A header without its size, and room for so many bytes behind it.
Record Begin(uint16_t type, size_t room = 0)
{
    Record record(sizeof(DataEventHeader) + room);
    HeadOf<DataEventHeader>(record)->evtType = type;
    return record;
}

void Give(const Record &record, uint32_t claimed)
{
    Record block = Block(record, claimed);
    const uint16_t type = HeadOf<DataEventHeader>(block)->evtType;
    if (type != DATA_EVENT_DM_DETACHED)
    {
        Require(QDVEventListener(HeadOf<DataEventHeader>(block)) == 0,
                "the listener's result");
    }
}

void Give(const Record &record)
{
    Give(record, static_cast<uint32_t>(record.size()));
}

void GiveList(Input *pInput)
{
    Record record = Begin(pInput->OneOf(kListTypes));
    const uint8_t count = pInput->Byte() % 16;
    Append(&record, count);
    for (uint8_t i = 0; i < count; ++i)
    {
        Append(&record, Oid(pInput));
    }
    Give(record);
}

void GiveBytes(Input *pInput)
{
    const bool lies = pInput->Byte() % 2 == 1;
    const uint32_t claimed = pInput->Word() % kMostClaimed;
    const uint8_t which = pInput->Byte();
    const uint16_t type =
        which < std::size(kTypes) ? kTypes[which] : pInput->Word();
    const Bytes body = pInput->Take(pInput->Word());
    Record record = Begin(type, body.size());
    std::ranges::copy(body, record.begin() + sizeof(DataEventHeader));
    lies ? Give(record, claimed) : Give(record);
}

void GiveAttribute(Input *pInput)
{
    Record record = Begin(DATA_EVENT_DBUS_TO_QDB);
    Append(&record, pInput->OneOf(kKinds));
    Append(&record, pInput->Byte());
    const std::string path =
        standin::AttributePath(pInput->OneOf(kKeys)) + pInput->Text();
    Append(&record, kBusFixedSize);
    Append(&record, static_cast<uint32_t>(kBusFixedSize + path.size() + 1));
    Append(&record, path);
    Append(&record, std::string(pInput->OneOf(kInterfaces)) + pInput->Text());
    Give(record);
}

// A known object's bytes, or others.
std::vector<uint8_t> TakeObject(Input *pInput)
{
    std::vector<uint8_t> object;
    if (pInput->Byte() % 2 == 1)
    {
        object = standin::ObjectBytes(Oid(pInput));
    }
    else
    {
        const Bytes bytes = pInput->Take(pInput->Word());
        object.assign(bytes.begin(), bytes.end());
    }
    ChangeBytes(&object, Input(pInput->Take(pInput->Byte())));
    return object;
}

void PutObject(Input *pInput)
{
    const std::vector<uint8_t> bytes = TakeObject(pInput);
    Record object = Block(bytes, static_cast<uint32_t>(bytes.size()));
    auto *head = HeadOf<DataObjHeader>(object);
    head->objID = kFirstRaw + pInput->Byte() % kRawCount;
    if (pInput->Byte() % 2 == 1)
    {
        head->objSize = pInput->Word() % kMostClaimed;
    }
    Require(standin::PutRawObject(object, {}).empty(), "an object");
}

void GiveStatus(Input *pInput)
{
    Record record = Begin(DATA_EVENT_OBJ_STATUS_CHG);
    Append(&record, 0);
    const std::vector<uint8_t> object = TakeObject(pInput);
    record.insert(record.end(), object.begin(), object.end());
    Give(record);
}

constexpr void (*kSteps[])(Input *) = {GiveList, GiveBytes, GiveAttribute,
                                       PutObject, GiveStatus};

// A worker's life, on this thread; a record may put another behind the queue.
void Work()
{
    static DataEventHeader stop = {0, DATA_EVENT_WORKER_EXIT, 0, {}};
    while (QdbEventQSize > 0)
    {
        QdbenQueue(gQdbEventQueue, &stop);
        QdbWorkerArg argument = {1};
        QdbWorkerThread(&argument);
    }
}

// The managers are the same for the next input.
struct RawObjects
{
    RawObjects() = default;
    ~RawObjects()
    {
        for (uint32_t i = 0; i < kRawCount; ++i)
        {
            const uint32_t oid = kFirstRaw + i;
            standin::DeleteObjects(std::span(&oid, 1), false);
        }
    }
    RawObjects(const RawObjects &) = delete;
    RawObjects &operator=(const RawObjects &) = delete;
};

} // namespace

void RunEvents(Bytes bytes)
{
    const MirrorInMemory mirror;
    static const bool isFilled = FillManagers();
    (void)isFilled;
    const RawObjects raw;
    Input input(bytes);
    for (int i = 0; i < kMostSteps && !input.IsEmpty(); ++i)
    {
        input.OneOf(kSteps)(&input);
        if (input.Byte() % 2 == 1)
        {
            Work();
        }
    }
    Work();
    int corrupt = -1;
    sem_getvalue(&gSqliteCorruptSem, &corrupt);
    Require(corrupt == 0, "a sound database");
    Require(sqlite3_get_autocommit(QDVdbHandle) != 0, "an ended transaction");
}

} // namespace qdb::fuzz

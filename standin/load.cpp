// Load: objects by the thousand, and changes at a given rate.
#include "objects/schema/rows.h"
#include "standin/events.h"
#include "standin/generator.h"
#include "standin/layout.h"
#include "standin/object_builder.h"
#include "standin/standin.h"
#include "standin/state.h"
#include "standin/store.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>
#include <unordered_map>

namespace standin
{
namespace
{

using std::chrono::steady_clock;

// Events that may wait when load is as fast as the listener: enough to keep
// it busy, few enough to hold the sender back.
constexpr size_t kWindow = 64;

std::vector<uint16_t> AllTypes()
{
    std::vector<uint16_t> types;
    for (const qdb::ObjTypeRow &row : qdb::ObjectTypeTable)
    {
        const bool isSecond = !types.empty() && types.back() == row.objType;
        if (!isSecond && !IsConfigType(row.objType))
        {
            types.push_back(row.objType);
        }
    }
    return types;
}

// The first object of all, for about every other object of another type; else
// the root.
uint32_t ChooseParent(const State &state, uint16_t type, uint32_t oid)
{
    if (oid % 2 != 0 || state.objects.empty() ||
        state.objects.begin()->second.type == type)
    {
        return kRootOid;
    }
    return state.objects.begin()->first;
}

Error GenerateOne(uint16_t type, uint32_t *pOid)
{
    ObjectSpec spec;
    spec.type = type;
    bool isFirst = false;
    {
        const LockedState state;
        spec.oid = TakeOid(*state, &state->nextOid);
        spec.parents = {ChooseParent(*state, type, spec.oid)};
        isFirst = state->byType[type].size() % 2 == 0;
    }
    const Json values = GenerateValues(type, spec.oid, isFirst);
    spec.values = values.get();
    return CreateObject(spec, false, pOid);
}

class Changer
{
  public:
    // Changes the next column of an object and sends the event. False when the
    // object is gone, or was given as bytes.
    bool Change(uint32_t oid);

  private:
    struct Choice
    {
        std::vector<const qdb::Column *> columns;
        size_t next = 0;
    };

    Choice &ChoiceFor(const qdb::Table &table);

    std::unordered_map<const qdb::Table *, Choice> choices;
};

Changer::Choice &Changer::ChoiceFor(const qdb::Table &table)
{
    Choice &choice = choices[&table];
    if (choice.columns.empty())
    {
        for (const qdb::Column &column : table.columns)
        {
            if (IsFree(table, column))
            {
                choice.columns.push_back(&column);
            }
        }
    }
    if (choice.columns.empty())
    {
        choice.columns = {FindColumn(table, kStatusColumn)};
    }
    return choice;
}

// One more than what the object holds, from 0 again behind the greatest value.
json_int_t NextValue(const Object &object, const qdb::Source &source)
{
    uint64_t old = 0;
    std::memcpy(&old, object.bytes.data() + source.offset, FieldSize(source));
    const qdb::IntegerRange range = RangeOf(source);
    old = old >> source.bit & UINT64_MAX >> (64 - range.bits);
    // Larger ones would not be JSON integers; negative ones look large here.
    const uint64_t greatest = std::min<uint64_t>(range.Greatest(), INT64_MAX);
    return old >= greatest ? 0 : static_cast<json_int_t>(old + 1);
}

bool Changer::Change(uint32_t oid)
{
    const Json values(json_object());
    {
        const LockedState state;
        const Object *object = state->Find(oid);
        if (object == nullptr || object->values == nullptr)
        {
            return false;
        }
        Choice &choice =
            ChoiceFor(*TableFor(object->type, object->values.get()));
        const qdb::Column &column =
            *choice.columns[choice.next++ % choice.columns.size()];
        json_object_set_new(values.get(), column.name,
                            json_integer(NextValue(*object, column.source)));
    }
    return SetObject(oid, values.get()).empty();
}

// A year at most, since clocks don't reach any further.
void SleepUntilDue(steady_clock::time_point begin, size_t sent,
                   double perSecond)
{
    const std::chrono::duration<double> due(
        std::min(static_cast<double>(sent) / perSecond, 3e7));
    std::this_thread::sleep_until(
        begin + std::chrono::duration_cast<steady_clock::duration>(due));
}

} // namespace

Error GenerateObjects(size_t count, std::span<const uint16_t> types,
                      bool announce)
{
    Start();
    const std::vector<uint16_t> wanted =
        types.empty() ? AllTypes()
                      : std::vector<uint16_t>(types.begin(), types.end());
    std::vector<uint32_t> oids;
    Error error;
    while (oids.size() < count && error.empty())
    {
        uint32_t oid = 0;
        error = GenerateOne(wanted[oids.size() % wanted.size()], &oid);
        if (error.empty())
        {
            oids.push_back(oid);
        }
    }
    if (announce)
    {
        AnnounceObjects(oids);
    }
    return error;
}

Error Churn(size_t count, double perSecond, std::span<const uint16_t> types)
{
    Start();
    const std::vector<uint32_t> oids = ObjectIdsOf(types);
    Changer changer;
    const steady_clock::time_point begin = steady_clock::now();
    size_t gone = 0; // objects in a row that could not be changed
    size_t sent = 0;
    for (size_t i = 0; sent < count; ++i)
    {
        if (gone == oids.size())
        {
            return "there is no live object to change";
        }
        if (!HasListener())
        {
            return "nobody listens to the events";
        }
        if (!changer.Change(oids[i % oids.size()]))
        {
            ++gone;
            continue;
        }
        gone = 0;
        ++sent;
        if (perSecond > 0)
        {
            SleepUntilDue(begin, sent, perSecond);
        }
        else
        {
            WaitForRecords(kWindow, {});
        }
    }
    return WaitForRecords(0, {}) ? Error()
                                 : "the listener left before the last event";
}

Error AnnounceAtRate(uint16_t eventType, std::span<const uint32_t> oids,
                     double perSecond, std::vector<int64_t> *pDelivered)
{
    NoteDeliveries(oids.size());
    const steady_clock::time_point begin = steady_clock::now();
    for (size_t i = 0; i < oids.size(); ++i)
    {
        SleepUntilDue(begin, i, perSecond);
        SendObjectList(eventType, {&oids[i], 1});
    }
    const bool delivered = WaitForRecords(0, {});
    *pDelivered = Deliveries();
    return delivered ? Error() : "the listener left before the last event";
}

} // namespace standin

// The stand-in's state, its start and its reset.
#include "standin/state.h"

#include "standin/calls.h"
#include "standin/control.h"
#include "standin/events.h"
#include "standin/faults.h"
#include "standin/log.h"
#include "standin/scenario.h"
#include "standin/standin.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>

namespace standin
{
namespace
{

constinit std::atomic<bool> gStarted = false;
constinit std::once_flag gStart;

// Set while this thread carries out the start, which uses functions that
// begin with Start() themselves.
constinit thread_local bool gStarting = false;

const char *Environment(const char *name)
{
    const char *value = std::getenv(name);
    return value == nullptr || *value == '\0' ? nullptr : value;
}

void ReadEnvironment()
{
    StartLog(Environment("QDB_STANDIN_LOG"));
    if (const char *path = Environment("QDB_STANDIN_STATE"))
    {
        LockedState()->stateFile = path;
    }
    if (const char *path = Environment("QDB_STANDIN_SCENARIO"))
    {
        LoadScenario(path);
    }
    // Last, so that clients find the scenario in place.
    if (const char *path = Environment("QDB_STANDIN_SOCKET"))
    {
        ServeControl(path);
    }
}

} // namespace

State &TheState()
{
    static State *const state = new State;
    return *state;
}

void Start()
{
    if (gStarted.load(std::memory_order_acquire) || gStarting)
    {
        return;
    }
    gStarting = true;
    std::call_once(gStart,
                   []
                   {
                       ReadEnvironment();
                       gStarted.store(true, std::memory_order_release);
                   });
    gStarting = false;
}

LockedState::LockedState() : state_((Start(), TheState())), lock_(state_.lock)
{
}

Object *State::Find(uint32_t oid)
{
    const auto found = objects.find(oid);
    return found == objects.end() ? nullptr : &found->second;
}

Object *State::FindKey(const std::string &key)
{
    const auto found = std::ranges::find_if(objects,
                                            [&key](const auto &item)
                                            {
                                                return item.second.key == key;
                                            });
    return found == objects.end() ? nullptr : &found->second;
}

bool IsTaken(const State &state, uint32_t oid)
{
    const auto has = [oid](const auto &item)
    {
        return item.second.oid == oid;
    };
    return oid <= kRootOid || state.objects.contains(oid) ||
           std::ranges::any_of(state.groups, has) ||
           std::ranges::any_of(state.attributes, has);
}

uint32_t TakeOid(const State &state, uint32_t *pNext)
{
    while (IsTaken(state, *pNext))
    {
        ++*pNext;
    }
    return (*pNext)++;
}

void Reset()
{
    const LockedState state;
    DropRecords();
    state->objects.clear();
    state->byType.clear();
    state->groups.clear();
    state->attributes.clear();
    state->integers.clear();
    state->nextOid = kFirstOid;
    state->nextConfigOid = kFirstConfigOid;
    state->ready = true;
    ResetFaults();
    ReleaseDelays();
    ResetCounts();
}

} // namespace standin

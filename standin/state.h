// Everything that the stand-in remembers about objects and attributes.
//
// One structure holds it, made on first use and never destroyed: background
// threads may run while the process exits. Threads, faults, the log and the
// event queue have their own state in their own files.
#pragma once

#include "standin/support.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace standin
{

// An object of the Data Manager, a group or an attribute.
struct Object
{
    uint16_t type = 0;
    uint32_t oid = 0;
    std::string key;
    std::vector<uint32_t> parents; // none for groups and attributes
    std::vector<uint8_t> bytes;
    Json values; // NULL for a group, and for what was given as bytes
};

inline constexpr uint16_t kGroupType = 0x4050;
inline constexpr uint16_t kIntAttributeType = 0x4051;
inline constexpr uint16_t kStrAttributeType = 0x4052;
inline constexpr uint16_t kEnumAttributeType = 0x4053;
inline constexpr uint16_t kPasswdAttributeType = 0x4054;

// Groups and attributes belong to the configuration manager; the Data Manager
// never lists them.
constexpr bool IsConfigType(uint16_t type)
{
    return type >= kGroupType && type <= kPasswdAttributeType;
}

inline constexpr uint32_t kFirstOid = 0x1000;
inline constexpr uint32_t kFirstConfigOid = 0x40500000;

struct State
{
    std::mutex lock; // guards all below; the event queue's is taken inside it

    std::map<uint32_t, Object> objects;            // by OID
    std::map<uint16_t, std::set<uint32_t>> byType; // OIDs of `objects`
    std::map<std::string, Object> groups;          // by key
    std::map<std::string, Object> attributes;      // by key
    std::map<std::string, int> integers;           // CfgSetAttributeInt's
    std::string stateFile;                         // "": none
    uint32_t nextOid = kFirstOid;
    uint32_t nextConfigOid = kFirstConfigOid;
    bool ready = true; // the Data Manager is up

    // Objects of the Data Manager; NULL: there is none.
    Object *Find(uint32_t oid);
    Object *FindKey(const std::string &key);

    // The groups or the attributes.
    std::map<std::string, Object> &Config(uint16_t type)
    {
        return type == kGroupType ? groups : attributes;
    }
};

State &TheState();

// Reads the environment, once: makes the scenario's objects and attributes and
// serves the control socket. Every platform function and every function of
// standin.h begins with it. Waits for a start that another thread has begun.
void Start();

// The state, started and locked for as long as this lives.
class LockedState
{
  public:
    LockedState();

    State *operator->() const
    {
        return &state_;
    }

    State &operator*() const
    {
        return state_;
    }

  private:
    State &state_;
    const std::lock_guard<std::mutex> lock_;
};

// The next OID at or behind *pNext that nothing has; moves *pNext past it. The
// caller holds the state's lock.
uint32_t TakeOid(const State &state, uint32_t *pNext);

// The OID belongs to an object, a group or an attribute. The caller holds the
// state's lock.
bool IsTaken(const State &state, uint32_t oid);

} // namespace standin

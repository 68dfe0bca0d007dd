// The platform functions by name, and what happens at the begin and the end of
// each call: it is counted, delayed, made to fail, measured.
//
// A call for which nothing is armed costs one addition and one load.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>

namespace standin
{

// All platform functions.
inline constexpr std::string_view kCalls[] = {
    "CfgEnumAttribute_get_object",
    "CfgGroup_get_object",
    "CfgIntAttribute_get_object",
    "CfgPasswdAttribute_get_object",
    "CfgSetAttributeInt",
    "CfgStrAttribute_get_object",
    "FreeObjectList",
    "ZOAllocMem",
    "ZOFreeMem",
    "ZOILAddEventListener",
    "ZOILDOGetObjKeyUTF8",
    "ZOILFreeGeneric",
    "ZOILGetObjByKey",
    "ZOILGetObjByOID",
    "ZOILIsDataManagerReady",
    "ZOILListChildOIDByType",
    "ZOILListParentOID",
    "ZOILRemoveEventListener",
    "ZOMutexCreate",
    "ZOMutexDestroy",
    "ZOMutexLock",
    "ZOMutexUnLock",
    "client_get_obj_body_ptr",
    "client_get_objects",
    "vexoprintf",
};
inline constexpr size_t kCallCount = std::size(kCalls);

// The place of a function in kCalls; kCallCount for any other name.
constexpr size_t CallIndex(std::string_view name)
{
    size_t index = 0;
    while (index < kCallCount && kCalls[index] != name)
    {
        ++index;
    }
    return index;
}

// A platform function, named by its caller: Call("ZOAllocMem"). A name that
// isn't in the list doesn't compile.
struct Call
{
    consteval explicit Call(std::string_view name) : index(CallIndex(name))
    {
        static_cast<void>(kCalls[index]);
    }

    size_t index;
};

// What to tell who names another function.
std::string NoSuchCall(const std::string &name);

// What can be armed for a function, as bits.
enum Armed : unsigned
{
    kFaulty = 1 << 0,      // faults.h
    kDelayed = 1 << 1,     // delays.h, before the answer is taken
    kDelayedLate = 1 << 2, // delays.h, after that
    kMeasured = 1 << 3,    // cost.h
};
void Arm(size_t index, Armed what, bool isOn);
bool IsArmed(Call call, unsigned anyOf);

// Counts a call.
void Count(Call call);

// Sets all counts to 0.
void ResetCounts();

// First thing in every platform function, before it takes any lock: starts the
// stand-in if need be, counts the call, sleeps, and learns whether it has to
// fail. At its end it sleeps again, if the answer is to arrive late.
class Entry
{
  public:
    // `oid` is the object that the call is about; 0: none.
    explicit Entry(Call call, uint32_t oid = 0);
    ~Entry();
    Entry(const Entry &) = delete;
    Entry &operator=(const Entry &) = delete;

    // The call has to fail: with Status() where it returns one.
    bool Fails() const
    {
        return fails_;
    }

    // 0 for a call that needn't fail.
    int Status() const
    {
        return status_;
    }

  private:
    const size_t index_;
    const uint32_t oid_;
    unsigned armed_ = 0;
    bool fails_ = false;
    int status_ = 0;
    int64_t begin_ = 0;
};

} // namespace standin

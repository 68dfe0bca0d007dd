// Call counts and injected failures of the platform functions.
#pragma once

#include <cstddef>
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

// First thing in every platform function: starts the stand-in if need be and
// counts the call. True when the call has to fail, with the status in *pStatus
// for functions that return one; pStatus may be NULL.
bool Faulted(Call call, int *pStatus = nullptr);

// Removes all faults and sets all counts to 0.
void ResetFaults();

} // namespace standin

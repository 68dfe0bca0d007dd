// A handler run on an object in a status loop, with the object fetched again
// whenever it cannot be read as it stands.
#pragma once

#include "core/log.h"
#include "core/platform_ptr.h"
#include "db/execute.h"

namespace qdb
{

// What an object that has vanished meanwhile means.
enum class WhenGone
{
    FetchAgain, // with each attempt that is left
    Fail,       // with ZO_STATUS_NO_SUCH_OBJECT
};

// Runs `operation`, which takes a const DataObjHeader *, on *pObject; that may
// be another object afterwards, or NULL. `caller` begins the line about an
// object that cannot be read. Returns the last status, as RunStatusLoop.
template <typename Operation>
int RunOnObject(const char *caller, int returnStatus, uint32_t oid,
                ObjectPtr *pObject, WhenGone whenGone, Operation operation)
{
    return RunStatusLoop(
        {}, returnStatus,
        [&]
        {
            return *pObject == nullptr ? ZO_STATUS_INVALID_VALUE
                                       : operation(pObject->get());
        },
        [&]
        {
            QDB_LOG(kLogTrace, "%s: %s: ZO_STATUS_INVALID_VALUE returned\n",
                    caller);
            pObject->reset();
            *pObject = FetchObject(oid);
            return *pObject == nullptr && whenGone == WhenGone::Fail
                       ? ZO_STATUS_NO_SUCH_OBJECT
                       : ZO_STATUS_INVALID_VALUE;
        });
}

} // namespace qdb

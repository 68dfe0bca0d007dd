// What all walks over objects share: an object is fetched, and a handler is run
// on it in a status loop, with the object fetched again whenever it cannot be
// read as it stands.
#pragma once

#include "core/log.h"
#include "core/platform_ptr.h"
#include "db/execute.h"

#include <utility>

namespace qdb
{

// Fetches an object of a list, with the line that tells its type; `caller`
// begins it. Without one *pStatus becomes ZO_STATUS_NO_SUCH_OBJECT.
inline ObjectPtr FetchListed(const char *caller, uint32_t oid, int *pStatus)
{
    ObjectPtr object = FetchObject(oid);
    if (object == nullptr)
    {
        *pStatus = ZO_STATUS_NO_SUCH_OBJECT;
        return object;
    }
    QDB_LOG(kLogTrace, "%s: %s: pDOH->objType=%d, pDOH->objType=0x%x\n", caller,
            object->objType, object->objType);
    return object;
}

// What an object that has vanished meanwhile means.
enum class WhenGone
{
    FetchAgain, // with each attempt that is left
    Fail,       // with ZO_STATUS_NO_SUCH_OBJECT
};

// Fetches an object again. One that has become another type's since is gone.
inline ObjectPtr FetchAgain(uint32_t oid, ObjectPtr object)
{
    const uint16_t objType = object == nullptr ? 0 : object->objType;
    object.reset();
    object = FetchObject(oid);
    if (object != nullptr && objType != 0 && object->objType != objType)
    {
        NoteFate(Fate::Vanished);
        object.reset();
    }
    return object;
}

// Runs `operation`, which takes a const DataObjHeader *, on *pObject; that may
// be another object afterwards, or NULL. It has come from FetchObject, and is
// fetched again when it is out of date, too. `caller` begins the line about an
// object that cannot be read. Returns the last status, as RunStatusLoop.
template <typename Operation>
int RunOnObject(const char *caller, int returnStatus, uint32_t oid,
                ObjectPtr *pObject, WhenGone whenGone, Operation operation)
{
    const FetchesAgain fetchesAgain;
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
            *pObject = FetchAgain(oid, std::move(*pObject));
            return *pObject == nullptr && whenGone == WhenGone::Fail
                       ? ZO_STATUS_NO_SUCH_OBJECT
                       : ZO_STATUS_INVALID_VALUE;
        });
}

// Runs `operation`, which takes a const DataObjHeader *, on an object that the
// caller has, and, for as long as that is out of date, on what the Data Manager
// has now. Returns its status, or ZO_STATUS_NO_SUCH_OBJECT when the object has
// gone meanwhile.
template <typename Operation>
int RunOnNewest(const DataObjHeader *pDOH, Operation operation)
{
    const uint32_t oid = pDOH->objID;
    const uint16_t objType = pDOH->objType;
    ObjectPtr newer;
    int status = ZO_STATUS_INVALID_VALUE;
    for (int attempt = 0; attempt < kAttempts; ++attempt)
    {
        const FetchesAgain fetchesAgain;
        status = operation(pDOH);
        if (!fetchesAgain.Refused())
        {
            break;
        }
        newer = FetchObject(oid);
        if (newer == nullptr || newer->objType != objType)
        {
            NoteFate(Fate::Vanished);
            return ZO_STATUS_NO_SUCH_OBJECT;
        }
        pDOH = newer.get();
    }
    return status;
}

} // namespace qdb

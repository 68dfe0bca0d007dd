#include "config/config_objects.h"

#include "config/bus_rows.h"
#include "core/log.h"
#include "core/status.h"
#include "objects/object_view.h"

#include <libgen.h>

#include <cstdio>
#include <cstring>

namespace qdb
{
namespace
{

constexpr size_t kKeyOffsetAt = 20;
constexpr size_t kGroupKeySize = 512;

// The key text that begins `offset` bytes into the object.
const char *KeyAt(const DataObjHeader *object, uint32_t offset)
{
    const auto key = ObjectView(object).TextInside(offset);
    return key ? key->data() : nullptr;
}

// The "#" keeps a group that ends in .1 from matching the attributes of one
// that ends in .10.
bool BelongsTo(const char *attributeKey, const DataObjHeader *group)
{
    const char *groupKey = group == nullptr ? nullptr : GetCfgObjectKey(group);
    if (groupKey == nullptr)
    {
        return false;
    }
    char prefix[kGroupKeySize];
    std::snprintf(prefix, sizeof(prefix), "%s#", groupKey);
    return std::strncmp(attributeKey, prefix, std::strlen(prefix)) == 0;
}

// Fetches an attribute. Notes when it was asked, for object_order.h.
int FetchAttribute(const BusRow &row, const char *path, DataObjHeader **ppDOH)
{
    const Wait wait;
    const uint64_t asked = Tick();
    const int status = row.getObject(kConfigService, path, ppDOH);
    NoteFetch(*ppDOH, asked);
    return status;
}

int FetchGroup(const char *path, DataObjHeader **ppGroup)
{
    const Wait wait;
    return CfgGroup_get_object(kConfigService, path, ppGroup);
}

// A pointer as the log shows it.
unsigned LogAddress(const void *pointer)
{
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer));
}

void LogHeader(const DataObjHeader *pDOH)
{
    QDB_LOG(kLogTrace, "%s: pDOH: 0x%08x\n", LogAddress(pDOH));
    QDB_LOG(kLogTrace, "%s: pDOH->objID: 0x%08x\n", pDOH->objID);
    QDB_LOG(kLogTrace, "%s: pDOH->objType: 0x%08x\n", pDOH->objType);
    QDB_LOG(kLogTrace, "%s: pDOH->objStatus: 0x%08x\n", pDOH->objStatus);
    QDB_LOG(kLogTrace, "%s: pDOH->objFlags: 0x%08x\n", pDOH->objFlags);
    QDB_LOG(kLogTrace, "%s: pDOH->refreshInterval: 0x%08x\n",
            pDOH->refreshInterval);
}

} // namespace

ConfigObjectList::~ConfigObjectList()
{
    if (list_ != nullptr)
    {
        const Wait wait;
        FreeObjectList(list_);
    }
}

int ConfigObjectList::Fetch(const char *interfaceName)
{
    const Wait wait;
    asked_ = Tick();
    return client_get_objects(interfaceName, "", &list_);
}

std::span<DataObjHeader *const> ConfigObjectList::Objects() const
{
    if (list_ == nullptr)
    {
        return {};
    }
    return {reinterpret_cast<DataObjHeader *const *>(list_ + 1), list_[0]};
}

int dbus_get_data_obj_hdr(uint32_t objType, const char *path,
                          DataObjHeader **ppDOH)
{
    if (ppDOH == nullptr)
    {
        QDB_LOG(kLogTrace, "%s: ERROR: Invalid parameter pDOH.\n");
        return 1;
    }
    const BusRow *row = FindBusRow(objType);
    if (row == nullptr)
    {
        QDB_LOG(kLogWarning, "%s: Unknown objType=0x%4x\n", objType);
        return 1;
    }
    if (FetchAttribute(*row, path, ppDOH) != 0)
    {
        QDB_LOG(kLogWarning, "%s: ERROR: get_object failed: %s\n", path);
        return 1;
    }
    if (*ppDOH == nullptr)
    {
        QDB_LOG(kLogWarning, "%s: ERROR: get_object returned pDOH == NULL\n");
        return 1;
    }
    LogHeader(*ppDOH);
    return 0;
}

const char *GetCfgObjectKey(const DataObjHeader *object)
{
    uint32_t *body = nullptr;
    const int status = [&]
    {
        const Wait wait;
        return client_get_obj_body_ptr(object, &body);
    }();
    if (status != 0)
    {
        QDB_LOG(kLogTrace, "%s: ERROR: client_get_obj_body_ptr failed.\n");
        return nullptr;
    }
    // The body belongs to the object: its word is read only where the object
    // says that it has one.
    if (body == nullptr || object->objSize < kKeyOffsetAt + sizeof(uint32_t))
    {
        return nullptr;
    }
    uint32_t offset = 0;
    std::memcpy(&offset, body + 1, sizeof(offset));
    return KeyAt(object, offset);
}

const char *GetCfgAttributeKey(const DataObjHeader *attribute)
{
    const auto offset = ObjectView(attribute).Read<uint32_t>(kKeyOffsetAt);
    return IsConfigType(attribute->objType) && offset
               ? KeyAt(attribute, *offset)
               : nullptr;
}

const DataObjHeader *GetGroupObject(const DataObjHeader *attribute,
                                    std::span<DataObjHeader *const> groups,
                                    GroupCache *pCache)
{
    const char *key = GetCfgAttributeKey(attribute);
    if (key == nullptr)
    {
        return nullptr;
    }
    if (*pCache != nullptr && BelongsTo(key, *pCache))
    {
        QDB_LOG(kLogTrace, "%s: Matched cache! %s\n", key);
        return *pCache;
    }
    for (const DataObjHeader *group : groups)
    {
        if (BelongsTo(key, group))
        {
            *pCache = group;
            QDB_LOG(kLogTrace, "%s: Found: %s\n", key);
            return group;
        }
    }
    QDB_LOG(kLogTrace, "%s: NULL!!!\n");
    return nullptr;
}

int GetCfgGroupByPath(const char *attributePath, DataObjHeader **ppGroup)
{
    if (attributePath == nullptr)
    {
        QDB_LOG(kLogInvalid, "%s: Error: objPath is NULL.\n");
        return kFailed;
    }
    const std::unique_ptr<char, CFree> copy(strdup(attributePath));
    if (copy == nullptr)
    {
        QDB_LOG(kLogWarning, "%s: Unable to dup string.\n");
        return kFailed;
    }
    const char *groupPath = dirname(copy.get());
    if (groupPath == nullptr)
    {
        QDB_LOG(kLogWarning, "%s: Unable to find slash.\n");
        return kFailed;
    }
    if (FetchGroup(groupPath, ppGroup) != 0)
    {
        QDB_LOG(kLogWarning, "%s: get_object FAILED for path = %s", groupPath);
        return ZO_STATUS_NO_SUCH_OBJECT;
    }
    QDB_LOG(kLogTrace, "%s: get_object path = %s, *pPDOH = 0x%08x \n",
            groupPath, LogAddress(*ppGroup));
    return SQLITE_OK;
}

} // namespace qdb

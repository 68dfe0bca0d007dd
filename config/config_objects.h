// Configuration attributes and groups as objects, through the closed client
// library.
//
// The library's calls are blocking bus calls; no database lock is held here.
#pragma once

#include "core/platform_ptr.h"
#include "platform/cfgclient.h"

#include <span>

namespace qdb
{

inline constexpr char kConfigService[] = "com.vexo.tarnu.CfgMgr";
inline constexpr char kConfigGroup[] = "CfgGroup";

// Interface names of the four attribute types.
inline constexpr char kIntInterface[] = "com.vexo.tarnu.Config.CfgIntAttribute";
inline constexpr char kStrInterface[] = "com.vexo.tarnu.Config.CfgStrAttribute";
inline constexpr char kEnumInterface[] =
    "com.vexo.tarnu.Config.CfgEnumAttribute";
inline constexpr char kPasswdInterface[] =
    "com.vexo.tarnu.Config.CfgPasswdAttribute";

enum ConfigType : uint32_t
{
    TYPE_CFGINT = 0x4051,
    TYPE_CFGSTR = 0x4052,
    TYPE_CFGENUM = 0x4053,
    TYPE_CFGPASSWD = 0x4054,
};

// All objects of one interface. Owns the library's list; the pointers in it
// live as long.
class ConfigObjectList
{
  public:
    ConfigObjectList() = default;
    ~ConfigObjectList();
    ConfigObjectList(const ConfigObjectList &) = delete;
    ConfigObjectList &operator=(const ConfigObjectList &) = delete;

    // Fetches the objects of an interface, or the groups. Returns the library's
    // status, 0 on success; it may give no list even then. Once per object.
    int Fetch(const char *interfaceName);

    bool IsNull() const
    {
        return list_ == nullptr;
    }

    // Empty for a NULL list.
    std::span<DataObjHeader *const> Objects() const;

    // The tick at which they were asked for (core/object_order.h).
    uint64_t Asked() const
    {
        return asked_;
    }

  private:
    uintptr_t *list_ = nullptr;
    uint64_t asked_ = 0;
};

// The group that the last attribute of a load belonged to; attributes mostly
// follow each other by group. Belongs to one load, whose list it points into.
using GroupCache = const DataObjHeader *;

// Fetches the attribute of a type at a path, as the caller's own. Returns 0, or
// 1 when there is none. ppDOH may be NULL, which fails.
int dbus_get_data_obj_hdr(uint32_t objType, const char *path,
                          DataObjHeader **ppDOH);

// The key text inside an object, found through the library, or inside an
// attribute, found by its own offset word; NULL when it has none that lies
// inside it. The text lives as long as the object.
const char *GetCfgObjectKey(const DataObjHeader *object);
const char *GetCfgAttributeKey(const DataObjHeader *attribute);

// The group in `groups` that the attribute belongs to; NULL when there is none.
// Looks at *pCache first and leaves there what it found in the list.
const DataObjHeader *GetGroupObject(const DataObjHeader *attribute,
                                    std::span<DataObjHeader *const> groups,
                                    GroupCache *pCache);

// Fetches the group of the attribute at a path, as the caller's own. Returns 0;
// 256 when the library failed; -1 for a NULL path or want of memory.
int GetCfgGroupByPath(const char *attributePath, DataObjHeader **ppGroup);

} // namespace qdb

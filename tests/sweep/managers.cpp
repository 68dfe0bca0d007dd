#include "tests/sweep/managers.h"

#include "standin/standin.h"

#include <set>

namespace qdb::sweep
{
namespace
{

std::set<uint32_t> gOids; // of all objects that there ever were

uint32_t OidOf(const Setting &setting)
{
    return static_cast<uint32_t>(0x40000 + (&setting - kSettings));
}

} // namespace

void FillManagers()
{
    constexpr size_t kTypes = 159;
    standin::GenerateObjects(kTypes, {}, false);
    standin::CreateObject({0x1001, kParent, {}, nullptr, "Parent"}, false);
    for (const Object &object : kObjects)
    {
        PutObject(object, object.oid, false);
    }
    for (const uint32_t oid : standin::ObjectIds())
    {
        gOids.insert(oid);
    }
    for (const Setting &setting : kSettings)
    {
        PutSetting(setting);
    }
}

void PutObject(const Object &object, uint32_t oid, bool announce)
{
    const JsonPtr values = Parse(object.values);
    gOids.insert(oid);
    standin::CreateObject({object.type, oid, {kParent}, values.get(), ""},
                          announce);
}

void SetObject(uint32_t oid, const char *values, bool announce)
{
    standin::SetObject(oid, Parse(values).get(), announce);
}

void PutSetting(const Setting &setting, const char *values)
{
    standin::PutAttribute(setting.interface, setting.key, Parse(values).get(),
                          OidOf(setting));
}

std::vector<uint32_t> AllOids()
{
    return {gOids.begin(), gOids.end()};
}

JsonPtr Announced(const Setting &setting)
{
    return JsonPtr(json_pack("{s:s,s:s,s:s,s:I}", "interface",
                             setting.interface, "key", setting.key, "path",
                             standin::AttributePath(setting.key).c_str(), "oid",
                             json_int_t{OidOf(setting)}));
}

JsonPtr Parse(const char *text)
{
    return JsonPtr(json_loads(text, 0, nullptr));
}

} // namespace qdb::sweep

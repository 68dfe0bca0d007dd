#include "tests/support/stream_driver.h"

#include "config/config_objects.h"
#include "core/json.h"
#include "events/bus_dispatch.h"
#include "events/dispatch.h"
#include "events/status_change.h"
#include "objects/handlers.h"

#include <gtest/gtest.h>

namespace qdb::test
{
namespace
{

std::string InterfaceOf(const ObjTypeRow &row)
{
    static const std::string kNames[] = {"CfgIntAttribute", "CfgStrAttribute",
                                         "CfgEnumAttribute",
                                         "CfgPasswdAttribute"};
    return kNames[row.objType - TYPE_CFGINT];
}

bool IsAttribute(const Subject &subject)
{
    return IsConfigType(subject.row->objType);
}

void PutKeyed(uint16_t type, uint32_t oid, const std::string &key)
{
    standin::ObjectSpec spec;
    spec.type = type;
    spec.oid = oid;
    spec.key = key;
    EXPECT_EQ(standin::CreateObject(spec, false), "");
}

} // namespace

void PutParents()
{
    PutKeyed(0x1001, kParentOid, "Parent");
    PutKeyed(0x1001, kOtherParentOid, "Other.Parent");
    PutKeyed(0x91, 0x502, "91||System.Embedded.1");
}

void Remove(const Subject &subject)
{
    // What isn't there is refused, which is as good.
    static_cast<void>(IsAttribute(subject)
                          ? standin::RemoveAttribute(kAttributeKey)
                          : standin::DeleteObjects(Words{subject.oid}, false));
}

void Put(const Subject &subject, json_t *values, const Words &parents)
{
    if (IsAttribute(subject))
    {
        json_object_set_new(values, "Key", json_string(kAttributeKey));
        EXPECT_EQ(standin::PutAttribute(InterfaceOf(*subject.row),
                                        kAttributeKey, values, subject.oid),
                  "");
        return;
    }
    if (!standin::ObjectBytes(subject.oid).empty() &&
        standin::SetObject(subject.oid, values, false).empty())
    {
        return;
    }
    // There is none yet, or one that was given as bytes.
    Remove(subject);
    standin::ObjectSpec spec;
    spec.type = subject.row->objType;
    spec.oid = subject.oid;
    spec.parents = parents;
    spec.values = values;
    EXPECT_EQ(standin::CreateObject(spec, false), "");
}

int Notify(const Subject &subject, uint16_t kind)
{
    if (kind == kCreateOnce || kind == kRefreshOnce)
    {
        const Bytes object = standin::ObjectBytes(subject.oid);
        const auto *pDOH =
            reinterpret_cast<const DataObjHeader *>(object.data());
        const ObjTypeRow &row = *FindRow(subject.row->objType);
        return kind == kCreateOnce ? CreateObject(row, pDOH, nullptr)
                                   : RefreshObject(row, pDOH, nullptr);
    }
    if (IsAttribute(subject))
    {
        constexpr uint16_t kFromBus = 65533;
        const Bytes record =
            BusRecord(kind, subject.oid, standin::AttributePath(kAttributeKey),
                      "com.vexo.tarnu.Config." + InterfaceOf(*subject.row));
        return ObjectNotificationDbus(EventOf(record), kFromBus);
    }
    return ObjectNotification(EventOf(List(kind, {subject.oid})), kind);
}

int NotifyStatus(const Subject &subject)
{
    constexpr uint16_t kStatusChange = 4;
    constexpr size_t kStatusByte = 10;
    Bytes object = standin::ObjectBytes(subject.oid);
    object.at(kStatusByte) ^= 3;
    const Bytes record =
        Record(kStatusChange, {0}, {object.begin(), object.end()});
    return ObjectNotificationStChg(EventOf(record));
}

} // namespace qdb::test

// Every row of the catalogue, end to end: an object of its type is created,
// changed and destroyed in the Data Manager (or the configuration manager), and
// the table, the signals and the telemetry records are looked at from outside,
// column by column.

#include "config/config_objects.h"
#include "core/state.h"
#include "db/mapping.h"
#include "events/queues/event_queue.h"
#include "events/queues/event_record.h"
#include "objects/catalogue.h"
#include "tests/support/change_listener.h"
#include "tests/support/mirror.h"
#include "tests/support/row_values.h"
#include "tests/support/wait.h"

#include <gtest/gtest.h>

#include <cstring>

namespace qdb::test
{
namespace
{

constexpr uint32_t kParentOid = 0x500;
constexpr char kParentKey[] = "Parent.Of.All";
constexpr char kGroupKey[] = "Test.Embedded.1#Group.1";

std::string Dump(const json_t *value)
{
    const JsonText text(json_dumps(value, JSON_ENCODE_ANY));
    return text == nullptr ? "(none)" : text.get();
}

// Names every key whose values differ, and no other: rows are wide.
void ExpectSame(const JsonPtr &actual, const JsonPtr &expected)
{
    ASSERT_NE(actual, nullptr);
    EXPECT_EQ(json_object_size(actual.get()), json_object_size(expected.get()));
    const char *key = nullptr;
    json_t *value = nullptr;
    json_object_foreach(expected.get(), key, value)
    {
        const json_t *is = json_object_get(actual.get(), key);
        EXPECT_TRUE(is != nullptr && json_equal(is, value) == 1)
            << key << " is " << Dump(is) << " in place of " << Dump(value);
    }
}

JsonPtr Parse(const std::string &text)
{
    return JsonPtr(json_loads(text.c_str(), 0, nullptr));
}

// A signal's row without its tag, which must be a time in seconds.
JsonPtr WithoutTag(json_t *details)
{
    JsonPtr row(json_deep_copy(details));
    const json_t *tag = json_object_get(row.get(), "SingleRecordEtag");
    EXPECT_TRUE(json_is_string(tag) &&
                std::strtoll(json_string_value(tag), nullptr, 10) > 1000000000)
        << Dump(tag);
    json_object_del(row.get(), "SingleRecordEtag");
    return row;
}

// The row as its table holds it: arrays stand elsewhere.
JsonPtr AsStored(const Table &table, const json_t *row)
{
    JsonPtr copy(json_deep_copy(row));
    for (const ArrayProperty &property : table.arrays)
    {
        json_object_set_new(copy.get(), property.name, json_null());
    }
    return copy;
}

class CatalogueRun : public ::testing::Test
{
  protected:
    CatalogueRun()
        : mirror_({.threads = true, .pipe = true}), pipe_(mirror_.Root().Pipe())
    {
        standin::ObjectSpec parent;
        parent.type = 0x1001;
        parent.oid = kParentOid;
        parent.key = kParentKey;
        EXPECT_EQ(standin::CreateObject(parent, true), "");
        EXPECT_EQ(listener_.WaitFor(1).size(), 1u);
    }

    // Runs one act and returns the signal that it must lead to.
    template <typename Act>
    JsonPtr SignalAfter(const std::string &member, Act act)
    {
        listener_.Clear();
        pipe_.Take();
        act();
        const std::vector<Change> changes = listener_.WaitFor(1);
        if (changes.size() != 1 || changes[0].member != member)
        {
            ADD_FAILURE() << "no " << member;
            return JsonPtr(json_object());
        }
        return Parse(changes[0].json);
    }

    void ExpectRecord(const RowData &row, int operation,
                      const std::string &rowid)
    {
        EXPECT_EQ(pipe_.Take(), (std::vector<std::string>{
                                    std::string(row.table->name) + "|" + rowid +
                                    "|" + std::to_string(operation)}));
    }

    std::string RowId(const RowData &row, uint32_t oid)
    {
        return mirror_.Value(
            std::string("SELECT rowid FROM ") + row.table->name +
            " WHERE OID = " + std::to_string(static_cast<int32_t>(oid)));
    }

    // The tables and the signal after a create or change.
    void ExpectRow(const RowData &row, uint32_t oid, const json_t *signal,
                   const json_t *expected)
    {
        EXPECT_STREQ(json_string_value(json_object_get(signal, "TableName")),
                     row.table->name);
        const JsonPtr details =
            WithoutTag(json_object_get(signal, "RowDetails"));
        ExpectSame(details, AsSignalled(*row.table, expected));
        ExpectSame(TableRow(mirror_.Root().Database(), *row.table, oid),
                   AsStored(*row.table, expected));
        EXPECT_EQ(mirror_.Value("SELECT ObjType FROM ActiveOIDMapping WHERE "
                                "OID = " +
                                std::to_string(static_cast<int32_t>(oid))),
                  std::to_string(row.objType));
    }

    // What a Changed signal says of the change itself.
    void ExpectChange(const RowData &row, json_t *signal, const json_t *before,
                      const json_t *after)
    {
        json_t *changed = json_object_get(signal, "PropertiesChanged");
        json_t *previous = json_object_get(signal, "PreviousPropertyValues");
        EXPECT_NE(json_object_size(changed), 0u);
        json_object_del(changed, "SingleRecordEtag");
        const JsonPtr was = AsSignalled(*row.table, before);
        const JsonPtr is = AsSignalled(*row.table, after);
        ExpectSame(Share(changed), Difference(was.get(), is.get()));
        const bool hasPrevious = HasPreviousValues(*FindRow(row.objType));
        EXPECT_EQ(previous != nullptr, hasPrevious);
        if (hasPrevious)
        {
            json_object_del(previous, "SingleRecordEtag");
            ExpectSame(Share(previous), Difference(is.get(), was.get()));
        }
    }

    void ExpectGone(const RowData &row, uint32_t oid)
    {
        EXPECT_EQ(TableRow(mirror_.Root().Database(), *row.table, oid),
                  nullptr);
        for (const char *table : {"ActiveOIDMapping", "ParentChildMapping"})
        {
            EXPECT_EQ(mirror_.Value(std::string("SELECT count(*) FROM ") +
                                    table + " WHERE OID = " +
                                    std::to_string(static_cast<int32_t>(oid))),
                      "0")
                << table;
        }
        for (const ArrayProperty &property : row.table->arrays)
        {
            EXPECT_EQ(mirror_.Value(std::string("SELECT count(*) FROM ") +
                                    property.table->name),
                      "0");
        }
    }

    Mirror mirror_;
    ChangeListener listener_;
    PipeReader pipe_;
};

// How the two sources of objects are driven.
struct Source161
{
    const RowData &row;
    uint32_t oid;

    std::string Key() const
    {
        return std::string(kGroupKey) + "#Attribute" + row.suffix;
    }

    bool IsAttribute() const
    {
        return IsConfigType(row.objType);
    }

    static const char *InterfaceOf(uint32_t objType)
    {
        return objType == TYPE_CFGINT    ? kIntInterface
               : objType == TYPE_CFGSTR  ? kStrInterface
               : objType == TYPE_CFGENUM ? kEnumInterface
                                         : kPasswdInterface;
    }

    // A record as the bus intake makes them.
    void SendBusRecord(uint16_t kind) const
    {
        const std::string path = standin::AttributePath(Key());
        const std::string interface = InterfaceOf(row.objType);
        const size_t size = kBusFixedSize + path.size() + interface.size() + 2;
        auto *record = static_cast<DataEventHeader *>(std::calloc(1, size));
        auto *bytes = reinterpret_cast<char *>(record);
        record->evtSize = static_cast<uint32_t>(size);
        record->evtType = DATA_EVENT_DBUS_TO_QDB;
        const uint32_t words[] = {
            kind, oid, kBusFixedSize,
            static_cast<uint32_t>(kBusFixedSize + path.size() + 1)};
        std::memcpy(bytes + kBusEventTypeAt, words, sizeof(words));
        std::memcpy(bytes + words[2], path.c_str(), path.size() + 1);
        std::memcpy(bytes + words[3], interface.c_str(), interface.size() + 1);
        QdbenQueue(gQdbEventQueue, record);
    }

    void PutAttribute(json_t *values) const
    {
        const std::string name = InterfaceOf(row.objType);
        EXPECT_EQ(standin::PutAttribute(name.substr(name.rfind('.') + 1), Key(),
                                        values, oid),
                  "");
    }

    void Create(json_t *values) const
    {
        if (IsAttribute())
        {
            PutAttribute(values);
            SendBusRecord(DATA_EVENT_DATA_OBJ_CREATE);
            return;
        }
        standin::ObjectSpec spec;
        spec.type = static_cast<uint16_t>(row.objType);
        spec.oid = oid;
        spec.parents = {kParentOid};
        spec.values = values;
        EXPECT_EQ(standin::CreateObject(spec), "");
    }

    void Change(json_t *values) const
    {
        if (IsAttribute())
        {
            PutAttribute(values);
            SendBusRecord(DATA_EVENT_DATA_OBJ_DIRTY_LIST);
            return;
        }
        EXPECT_EQ(standin::SetObject(oid, values), "");
    }

    void Destroy() const
    {
        if (IsAttribute())
        {
            EXPECT_EQ(standin::RemoveAttribute(Key()), "");
            SendBusRecord(DATA_EVENT_DATA_OBJ_DESTROY);
            return;
        }
        EXPECT_EQ(standin::DeleteObjects(std::vector<uint32_t>{oid}), "");
    }

    // The object as the service is given it.
    std::vector<uint8_t> Bytes() const
    {
        if (!IsAttribute())
        {
            return standin::ObjectBytes(oid);
        }
        DataObjHeader *object = nullptr;
        EXPECT_EQ(dbus_get_data_obj_hdr(row.objType,
                                        standin::AttributePath(Key()).c_str(),
                                        &object),
                  0);
        const ConfigObjectPtr owner(object);
        const auto *bytes = reinterpret_cast<const uint8_t *>(object);
        return {bytes, bytes + object->objSize};
    }

    const char *ParentKey() const
    {
        return IsAttribute() ? kGroupKey : kParentKey;
    }
};

TEST_F(CatalogueRun, EveryRowIsMirroredColumnByColumn)
{
    uint32_t oid = 0x80000000u; // stored negative
    for (const RowData &row : kRowData)
    {
        SCOPED_TRACE(row.suffix);
        const Source161 source = {row, oid++};
        const JsonPtr first = ValuesFor(row, ValueSet::First);
        const JsonPtr second = ValuesFor(row, ValueSet::Second);
        if (source.IsAttribute())
        {
            const JsonPtr key(json_string(source.Key().c_str()));
            json_object_set(first.get(), "Key", key.get());
            json_object_set(second.get(), "Key", key.get());
        }

        const JsonPtr added = SignalAfter("Vexo_qdb_Resource_Added",
                                          [&]
                                          {
                                              source.Create(first.get());
                                          });
        const JsonPtr before =
            ExpectedRow(row, first.get(), source.Bytes(), source.ParentKey());
        json_object_set_new(before.get(), "OID",
                            json_integer(StoredOid(source.oid)));
        const std::string rowid = RowId(row, source.oid);
        ExpectRow(row, source.oid, added.get(), before.get());
        ExpectRecord(row, 18, rowid);

        const JsonPtr changed = SignalAfter("Vexo_qdb_Resource_Changed",
                                            [&]
                                            {
                                                source.Change(second.get());
                                            });
        const JsonPtr after =
            ExpectedRow(row, second.get(), source.Bytes(), source.ParentKey());
        json_object_set_new(after.get(), "OID",
                            json_integer(StoredOid(source.oid)));
        json_object_set(after.get(), "RootObjectKey",
                        json_object_get(before.get(), "RootObjectKey"));
        if (json_object_get(before.get(), "RootObjectKey") == nullptr)
        {
            json_object_del(after.get(), "RootObjectKey");
        }
        ExpectRow(row, source.oid, changed.get(), after.get());
        ExpectChange(row, changed.get(), before.get(), after.get());
        ExpectRecord(row, 23, rowid);

        const JsonPtr removed = SignalAfter("Vexo_qdb_Resource_Removed",
                                            [&]
                                            {
                                                source.Destroy();
                                            });
        ExpectSame(WithoutTag(json_object_get(removed.get(), "RowDetails")),
                   AsSignalled(*row.table, after.get()));
        ExpectGone(row, source.oid);
        ExpectRecord(row, 9, rowid);
        if (HasFailure())
        {
            break;
        }
    }
}

} // namespace
} // namespace qdb::test

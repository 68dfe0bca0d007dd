#include "bench/floor.h"

#include "core/state.h"
#include "db/connection.h"
#include "db/mapping.h"
#include "objects/binder.h"
#include "objects/sql_text.h"
#include "platform/standin/standin.h"
#include "publish/bus_connection.h"

#include <cstring>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

namespace qdb::bench
{
namespace
{

constexpr char kTag[] = "SingleRecordEtag";

// Kinds of signals, as SignalMember counts them.
constexpr int kAdded = 1;
constexpr int kChanged = 2;
constexpr int kRemoved = 3;

StatementPtr Prepare(const std::string &sql)
{
    int status = SQLITE_OK;
    StatementPtr statement = PrepareOnce(sql.c_str(), &status);
    if (statement == nullptr)
    {
        throw std::runtime_error("the floor can't prepare " + sql);
    }
    return statement;
}

void Step(const StatementPtr &statement, int expected)
{
    if (sqlite3_step(statement.get()) != expected)
    {
        throw std::runtime_error(std::string("the floor's database: ") +
                                 sqlite3_errmsg(QDVdbHandle));
    }
}

// Runs a statement that takes integers and gives nothing.
void Write(const StatementPtr &statement, std::initializer_list<int> values)
{
    const StatementReset reset(statement.get());
    int parameter = 1;
    for (const int value : values)
    {
        sqlite3_bind_int(statement.get(), parameter++, value);
    }
    Step(statement, SQLITE_DONE);
}

// Binds what the statement takes of the object's columns. Returns the number
// of the next parameter.
int BindColumns(const StatementPtr &statement, const Table &table,
                const ObjectView &object, BindMode mode)
{
    int parameter = 1;
    for (const Column &column : table.columns)
    {
        if (mode == BindMode::Update && column.source.insertOnly)
        {
            continue;
        }
        if (column.source.form == Form::ParentKey)
        {
            sqlite3_bind_text(statement.get(), parameter, kParentKey, -1,
                              SQLITE_TRANSIENT);
        }
        else
        {
            BindField(statement.get(), parameter, column.source, object);
        }
        ++parameter;
    }
    return parameter;
}

void CheckBus(int result)
{
    if (result < 0)
    {
        throw std::runtime_error(std::string("the floor's bus: ") +
                                 std::strerror(-result));
    }
}

sd_bus *OpenBus()
{
    sd_bus *bus = nullptr;
    CheckBus(sd_bus_open_system(&bus));
    return bus;
}

struct UnrefMessage
{
    void operator()(sd_bus_message *message) const
    {
        sd_bus_message_unref(message);
    }
};

// The columns that differ, with their new values; NULL if only the tag does.
JsonPtr Differences(json_t *before, json_t *after)
{
    JsonPtr changed(json_object());
    bool any = false;
    const char *key = nullptr;
    json_t *old = nullptr;
    json_object_foreach(before, key, old)
    {
        json_t *value = json_object_get(after, key);
        if (json_equal(old, value) == 0)
        {
            json_object_set(changed.get(), key, value);
            any = any || std::strcmp(key, kTag) != 0;
        }
    }
    return any ? std::move(changed) : nullptr;
}

} // namespace

Floor::Floor(Subscriber &subscriber)
    : subscriber_(subscriber), row_(MeasuredRow()),
      typeOf_(Prepare("select ObjType from ActiveOIDMapping where OID = ?")),
      map_(Prepare("insert into ActiveOIDMapping ( OID, ObjType ) values "
                   "(?,?)")),
      insert_(Prepare(InsertSql(*row_.table))),
      update_(Prepare(UpdateSql(*row_.table, false))),
      select_(Prepare(SelectJsonSql(*row_.table, false))),
      touchTag_(Prepare("UPDATE TblEtag SET MultiRecordEtag = strftime('%s') "
                        "where TableName = ?;")),
      linkParent_(Prepare("INSERT OR REPLACE INTO ParentChildMapping ('OID', "
                          "'POID') VALUES (?, ?)")),
      unmap_(Prepare("DELETE FROM ActiveOIDMapping WHERE Oid = ?")),
      bus_(OpenBus())
{
}

Outcome Floor::Run(Operation operation, std::span<const uint32_t> oids)
{
    const size_t signals = oids.size() * SignalsOf(operation);
    std::vector<std::vector<uint8_t>> objects;
    for (const uint32_t oid : oids)
    {
        objects.push_back(standin::ObjectBytes(oid));
    }
    subscriber_.Begin();
    const Clock::time_point begin = Clock::now();
    for (size_t i = 0; i < oids.size(); ++i)
    {
        RunOne(operation, oids[i],
               reinterpret_cast<const DataObjHeader *>(objects[i].data()));
    }
    const Clock::time_point end =
        signals > 0 ? subscriber_.WaitFor(signals) : Clock::now();
    Send(kAdded, kFence);
    return {std::chrono::duration<double>(end - begin).count(),
            subscriber_.End(signals)};
}

void Floor::RunOne(Operation operation, uint32_t oid,
                   const DataObjHeader *object)
{
    LookUpType(oid);
    switch (operation)
    {
    case Operation::Create:
        Create(oid, ObjectView(object));
        break;
    case Operation::RefreshChanged:
    case Operation::RefreshSame:
        Refresh(oid, ObjectView(object));
        break;
    case Operation::Delete:
        Delete(oid);
        break;
    }
}

void Floor::Create(uint32_t oid, const ObjectView &object)
{
    Write(map_, {StoredOid(oid), static_cast<int>(row_.objType)});
    InsertRow(object);
    JsonPtr row = ReadRow(oid);
    TouchTag();
    Write(linkParent_, {StoredOid(oid), StoredOid(kParentOid)});
    Announce(kAdded, std::move(row), nullptr);
}

void Floor::Refresh(uint32_t oid, const ObjectView &object)
{
    const JsonPtr before = ReadRow(oid);
    UpdateRow(oid, object);
    JsonPtr after = ReadRow(oid);
    if (JsonPtr changed = Differences(before.get(), after.get()))
    {
        Announce(kChanged, std::move(after), std::move(changed));
    }
}

void Floor::Delete(uint32_t oid)
{
    JsonPtr row = ReadRow(oid);
    Write(unmap_, {StoredOid(oid)});
    Announce(kRemoved, std::move(row), nullptr);
}

// Before a create there is no row, which is no failure.
void Floor::LookUpType(uint32_t oid)
{
    const StatementReset reset(typeOf_.get());
    sqlite3_bind_int(typeOf_.get(), 1, StoredOid(oid));
    if (sqlite3_step(typeOf_.get()) == SQLITE_ROW)
    {
        sqlite3_column_int(typeOf_.get(), 0);
    }
}

void Floor::InsertRow(const ObjectView &object)
{
    const StatementReset reset(insert_.get());
    BindColumns(insert_, *row_.table, object, BindMode::Insert);
    Step(insert_, SQLITE_DONE);
}

void Floor::UpdateRow(uint32_t oid, const ObjectView &object)
{
    const StatementReset reset(update_.get());
    const int last =
        BindColumns(update_, *row_.table, object, BindMode::Update);
    sqlite3_bind_int(update_.get(), last, StoredOid(oid));
    Step(update_, SQLITE_DONE);
}

JsonPtr Floor::ReadRow(uint32_t oid)
{
    const StatementReset reset(select_.get());
    sqlite3_bind_int64(select_.get(), 1, StoredOid(oid));
    Step(select_, SQLITE_ROW);
    const auto *text =
        reinterpret_cast<const char *>(sqlite3_column_text(select_.get(), 0));
    JsonPtr row(text == nullptr ? nullptr : json_loads(text, 0, nullptr));
    if (row == nullptr)
    {
        throw std::runtime_error("the floor read a row that isn't JSON");
    }
    return row;
}

void Floor::TouchTag()
{
    const StatementReset reset(touchTag_.get());
    sqlite3_bind_text(touchTag_.get(), 1, row_.table->name, -1,
                      SQLITE_TRANSIENT);
    Step(touchTag_, SQLITE_DONE);
}

void Floor::Announce(int kind, JsonPtr row, JsonPtr changed)
{
    const JsonPtr change(json_object());
    json_object_set_new(change.get(), "TableName",
                        json_string(row_.table->name));
    json_object_set_new(change.get(), "RowDetails", row.release());
    if (changed != nullptr)
    {
        json_object_set_new(change.get(), "PropertiesChanged",
                            changed.release());
    }
    const JsonText text(json_dumps(change.get(), 0));
    Send(kind, text.get());
}

// Flushed, because nobody else sends what the socket didn't take; when it took
// all, that costs nothing.
void Floor::Send(int kind, const char *text)
{
    sd_bus_message *made = nullptr;
    CheckBus(sd_bus_message_new_signal(bus_.get(), &made, kSignalPath,
                                       kSignalInterface, SignalMember(kind)));
    const std::unique_ptr<sd_bus_message, UnrefMessage> message(made);
    CheckBus(sd_bus_message_append(made, "s", text));
    CheckBus(sd_bus_send(bus_.get(), made, nullptr));
    CheckBus(sd_bus_flush(bus_.get()));
}

} // namespace qdb::bench

#include "bench/loop.h"

#include "core/paths.h"
#include "core/state.h"
#include "db/connection.h"
#include "db/mapping.h"
#include "objects/array_tables.h"
#include "publish/bus_connection.h"
#include "standin/commands.h"
#include "standin/standin.h"
#include "tools/dmctl/client.h"

#include <algorithm>
#include <ctime>
#include <stdexcept>

namespace qdb::bench
{
namespace
{

// Kinds of signals, as SignalMember counts them.
constexpr int kAdded = 1;
constexpr int kChanged = 2;
constexpr int kRemoved = 3;

enum Statement : size_t
{
    kTypeOf,
    kMap,
    kTouchTag,
    kLinkParent,
    kUnmap,
};
constexpr const char *kSql[] = {
    "select ObjType from ActiveOIDMapping where OID = ?",
    "insert into ActiveOIDMapping ( OID, ObjType ) values (?,?)",
    "UPDATE TblEtag SET MultiRecordEtag = strftime('%s') where TableName = ?;",
    "INSERT OR REPLACE INTO ParentChildMapping ('OID', 'POID') VALUES (?, ?)",
    "DELETE FROM ActiveOIDMapping WHERE Oid = ?",
};

int64_t ProcessorTime()
{
    timespec time = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

const DataObjHeader *Object(const std::vector<uint8_t> &bytes)
{
    return reinterpret_cast<const DataObjHeader *>(bytes.data());
}

void CheckBus(int result)
{
    if (result < 0)
    {
        throw std::runtime_error("the bus: " + std::to_string(result));
    }
}

} // namespace

// Waits for its name, since the daemon closes a connection that nobody has
// driven for half a minute, and objects may take longer to make.
Loop::Loop()
{
    standin::Reset();
    sqlite3_shutdown(); // as in a new process
    gRuntimeRoot = scratch.root.Path().c_str();
    if (QDVDBInit() != SQLITE_OK)
    {
        throw std::runtime_error("can't open the database");
    }
    for (const char *sql : kSql)
    {
        statements_.emplace_back(sql);
    }
    const char *name = nullptr;
    CheckBus(sd_bus_open_system(&bus_));
    CheckBus(sd_bus_get_unique_name(bus_, &name));
}

Loop::~Loop()
{
    sd_bus_flush_close_unref(bus_);
    statements_.clear();
    rows_.clear();
    FinalizeHandlerStatements(); // those of array properties
    CloseDatabase();
}

// Rows that the objects have go in by their catalogue row, as a population
// walks them; everything else keeps the order of its events.
void Loop::Prepare(const Step &step, const Json &operations)
{
    for (size_t i = 0; i < json_array_size(operations.get()); ++i)
    {
        const Json reply =
            standin::Execute(json_array_get(operations.get(), i));
        if (!Succeeded(reply.get()))
        {
            throw std::runtime_error(ErrorOf(reply.get()));
        }
    }
    subjects_.clear();
    for (const uint32_t oid : OidsOf(step))
    {
        std::vector<uint8_t> bytes = standin::ObjectBytes(oid);
        LoopRow *&row = byOid_[oid];
        if (row == nullptr)
        {
            const ObjTypeRow &found =
                RowOf(reinterpret_cast<DataObjHeader *>(bytes.data()));
            row = &rows_.try_emplace(&found, found).first->second;
        }
        subjects_.push_back({oid, std::move(bytes), row});
    }
    if (step.action == Action::Populate)
    {
        std::ranges::stable_sort(subjects_, {},
                                 [](const Subject &subject)
                                 {
                                     return &subject.row->row;
                                 });
    }
}

LoopCost Loop::Run(const Step &step)
{
    LoopCost cost = {};
    const int64_t before = ProcessorTime();
    cost.begin = Now();
    for (const Subject &subject : subjects_)
    {
        RunOne(step.action, subject);
    }
    cost.end = Now();
    cost.processor = ProcessorTime() - before;
    return cost;
}

void Loop::RunOne(Action action, const Subject &subject)
{
    if (action != Action::Populate)
    {
        LookUpType(subject.oid);
    }
    switch (action)
    {
    case Action::Populate:
    case Action::Create:
        Create(subject, action == Action::Create);
        break;
    case Action::RefreshChanged:
    case Action::RefreshSame:
        Refresh(subject);
        break;
    case Action::Delete:
    case Action::DestroyBunch:
        Delete(subject);
        break;
    }
}

void Loop::Create(const Subject &subject, bool announced)
{
    const ObjTypeRow &row = subject.row->row;
    const auto type = static_cast<uint16_t>(row.objType);
    const Parent *parent = ParentOf(type, subject.oid);
    Write(statements_[kMap],
          {StoredOid(subject.oid), static_cast<int>(row.objType)});
    subject.row->Insert(ObjectView(Object(subject.bytes)),
                        parent == nullptr ? nullptr : parent->key);
    InsertArrays(row, Object(subject.bytes));
    JsonPtr whole = subject.row->Read(subject.oid);
    TouchTag(row.table->name);
    if (parent != nullptr)
    {
        Write(statements_[kLinkParent],
              {StoredOid(subject.oid), StoredOid(parent->oid)});
    }
    const JsonText text = subject.row->Whole(std::move(whole));
    if (announced)
    {
        Send(kAdded, text);
    }
}

void Loop::Refresh(const Subject &subject)
{
    JsonPtr before = subject.row->Read(subject.oid);
    subject.row->Update(ObjectView(Object(subject.bytes)), subject.oid);
    JsonPtr after = subject.row->Read(subject.oid);
    if (const JsonText text =
            subject.row->Change(std::move(before), std::move(after)))
    {
        Send(kChanged, text);
    }
}

void Loop::Delete(const Subject &subject)
{
    JsonPtr whole = subject.row->Read(subject.oid);
    Write(statements_[kUnmap], {StoredOid(subject.oid)});
    Send(kRemoved, subject.row->Whole(std::move(whole)));
    byOid_.erase(subject.oid);
}

// Before a create there is no row, which is no failure.
void Loop::LookUpType(uint32_t oid)
{
    sqlite3_stmt *typeOf = statements_[kTypeOf].Get();
    const StatementReset reset(typeOf);
    sqlite3_bind_int(typeOf, 1, StoredOid(oid));
    if (sqlite3_step(typeOf) == SQLITE_ROW)
    {
        sqlite3_column_int(typeOf, 0);
    }
}

void Loop::TouchTag(const char *table)
{
    sqlite3_stmt *touch = statements_[kTouchTag].Get();
    const StatementReset reset(touch);
    sqlite3_bind_text(touch, 1, table, -1, SQLITE_TRANSIENT);
    StepTo(touch, SQLITE_DONE);
}

// Flushed, because nobody else sends what the socket didn't take; when it took
// all, that costs nothing.
void Loop::Send(int kind, const JsonText &text)
{
    CheckBus(sd_bus_emit_signal(bus_, kSignalPath, kSignalInterface,
                                SignalMember(kind), "s", text.get()));
    CheckBus(sd_bus_flush(bus_));
}

} // namespace qdb::bench

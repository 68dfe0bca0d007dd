#include "bench/loop.h"

#include "bench/parsed_rows.h"
#include "bench/wait.h"
#include "core/paths.h"
#include "core/state.h"
#include "db/connection.h"
#include "db/mapping.h"
#include "objects/array_tables.h"
#include "platform/standin/commands.h"
#include "platform/standin/standin.h"
#include "tools/dmctl/client.h"

#include <algorithm>
#include <ctime>
#include <stdexcept>

namespace qdb::bench
{
namespace
{

int64_t ProcessorTime()
{
    timespec time = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

void CheckReply(const json_t *reply)
{
    if (!Succeeded(reply))
    {
        throw std::runtime_error("the stand-in refused: " + ErrorOf(reply));
    }
}

} // namespace

Loop::OpenDatabase::OpenDatabase(const Scratch &scratch)
{
    sqlite3_shutdown(); // as in a new process
    gRuntimeRoot = scratch.Root().c_str();
    if (QDVDBInit() != SQLITE_OK)
    {
        throw std::runtime_error("can't open the database");
    }
}

Loop::OpenDatabase::~OpenDatabase()
{
    FinalizeHandlerStatements(); // those of array properties
    CloseDatabase();
}

Loop::Loop()
{
    standin::Reset();
}

// Rows that the objects have go in by their catalogue row, as a population
// walks them; everything else keeps the order of its events.
void Loop::Prepare(const Step &step, const Json &operations)
{
    for (size_t i = 0; i < json_array_size(operations.get()); ++i)
    {
        CheckReply(standin::Execute(json_array_get(operations.get(), i)).get());
    }
    subjects_.clear();
    for (const uint32_t oid : OidsOf(step))
    {
        std::vector<uint8_t> bytes = standin::ObjectBytes(oid);
        RowStatements &statements = StatementsOf(oid, bytes);
        subjects_.push_back({oid, std::move(bytes), &statements});
    }
    if (step.action == Action::Populate)
    {
        std::ranges::stable_sort(subjects_, {},
                                 [](const Subject &subject)
                                 {
                                     return &subject.statements->row;
                                 });
    }
}

RowStatements &Loop::StatementsOf(uint32_t oid, std::vector<uint8_t> &bytes)
{
    RowStatements *&statements = byOid_[oid];
    if (statements == nullptr)
    {
        auto *object = reinterpret_cast<DataObjHeader *>(bytes.data());
        const ObjTypeRow *row = bytes.empty() ? nullptr : RowOf(object);
        if (row == nullptr)
        {
            throw std::runtime_error("an object has no row");
        }
        statements = &statements_.try_emplace(row, *row).first->second;
    }
    return *statements;
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
    if (action == Action::Populate)
    {
        Create(subject, false);
        return;
    }
    LookUpType(subject.oid);
    switch (action)
    {
    case Action::Populate:
    case Action::Create:
        Create(subject, true);
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
    const ObjTypeRow &row = subject.statements->row;
    const auto type = static_cast<uint16_t>(row.objType);
    const Parent *parent = ParentOf(type, subject.oid);
    Write(map_, {StoredOid(subject.oid), static_cast<int>(row.objType)});
    InsertRow(*subject.statements, ObjectView(subject.Object()),
              parent == nullptr ? nullptr : parent->key);
    InsertArrays(row, subject.Object());
    auto whole = ParsedRows::Read(*subject.statements, subject.oid);
    TouchTag(row.table->name);
    if (parent != nullptr)
    {
        Write(linkParent_, {StoredOid(subject.oid), StoredOid(parent->oid)});
    }
    const auto text = ParsedRows::RenderWhole(row, std::move(whole));
    if (announced)
    {
        bus_.Send(kAdded, text.get());
    }
}

void Loop::Refresh(const Subject &subject)
{
    RowStatements &statements = *subject.statements;
    auto before = ParsedRows::Read(statements, subject.oid);
    UpdateRow(statements, ObjectView(subject.Object()), subject.oid);
    auto after = ParsedRows::Read(statements, subject.oid);
    if (const auto text = ParsedRows::RenderChange(
            statements.row, std::move(before), std::move(after)))
    {
        bus_.Send(kChanged, text->get());
    }
}

void Loop::Delete(const Subject &subject)
{
    RowStatements &statements = *subject.statements;
    auto whole = ParsedRows::Read(statements, subject.oid);
    Write(unmap_, {StoredOid(subject.oid)});
    bus_.Send(kRemoved,
              ParsedRows::RenderWhole(statements.row, std::move(whole)).get());
    byOid_.erase(subject.oid);
}

// Before a create there is no row, which is no failure.
void Loop::LookUpType(uint32_t oid)
{
    const StatementReset reset(typeOf_.get());
    sqlite3_bind_int(typeOf_.get(), 1, StoredOid(oid));
    if (sqlite3_step(typeOf_.get()) == SQLITE_ROW)
    {
        sqlite3_column_int(typeOf_.get(), 0);
    }
}

void Loop::TouchTag(const char *table)
{
    const StatementReset reset(touchTag_.get());
    sqlite3_bind_text(touchTag_.get(), 1, table, -1, SQLITE_TRANSIENT);
    StepTo(touchTag_, SQLITE_DONE);
}

} // namespace qdb::bench

#include "bench/loop.h"

#include "bench/loop_bus.h"
#include "bench/parsed_rows.h"
#include "bench/spliced_rows.h"
#include "bench/subscriber.h"
#include "core/paths.h"
#include "core/state.h"
#include "db/connection.h"
#include "db/mapping.h"
#include "objects/array_tables.h"
#include "platform/standin/standin.h"

#include <algorithm>
#include <ctime>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace qdb::bench
{
namespace
{

struct OpenDatabase
{
    OpenDatabase()
    {
        if (QDVDBInit() != SQLITE_OK)
        {
            throw std::runtime_error("can't open the database");
        }
    }
    ~OpenDatabase()
    {
        CloseDatabase();
    }
    OpenDatabase(const OpenDatabase &) = delete;
    OpenDatabase &operator=(const OpenDatabase &) = delete;
};

const char *CString(const JsonText &text)
{
    return text.get();
}

const char *CString(const std::string &text)
{
    return text.c_str();
}

int64_t ProcessorTime()
{
    timespec time = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

// An object on its way through the loop. After its deletion only its row is
// known.
struct Subject
{
    uint32_t oid;
    std::vector<uint8_t> bytes; // empty: gone
    RowStatements *statements;

    const DataObjHeader *Object() const
    {
        return reinterpret_cast<const DataObjHeader *>(bytes.data());
    }
};

template <typename Rows>
class Loop
{
  public:
    void Prepare(const Step &step);
    Cost Run(const Step &step);

  private:
    void RunOne(Operation operation, const Subject &subject);
    void Create(const Subject &subject, bool announced);
    void Refresh(const Subject &subject);
    void Delete(const Subject &subject);
    void LookUpType(uint32_t oid);
    void TouchTag(const char *table);
    RowStatements &StatementsOf(uint32_t oid, std::vector<uint8_t> &bytes);

    OpenDatabase database_; // before the statements, which it outlives
    LoopBus bus_;
    StatementPtr typeOf_ =
        PrepareText("select ObjType from ActiveOIDMapping where OID = ?");
    StatementPtr map_ = PrepareText(
        "insert into ActiveOIDMapping ( OID, ObjType ) values (?,?)");
    StatementPtr touchTag_ = PrepareText(
        "UPDATE TblEtag SET MultiRecordEtag = strftime('%s') where TableName "
        "= ?;");
    StatementPtr linkParent_ =
        PrepareText("INSERT OR REPLACE INTO ParentChildMapping ('OID', "
                    "'POID') VALUES (?, ?)");
    StatementPtr unmap_ =
        PrepareText("DELETE FROM ActiveOIDMapping WHERE Oid = ?");
    StatementPtr anyRead_ = PrepareText("SELECT 1 FROM sqlite_schema");

    std::map<const ObjTypeRow *, RowStatements> statements_;
    std::map<uint32_t, RowStatements *> byOid_; // of live objects
    std::vector<Subject> subjects_;             // of the next Run
};

// Rows that the objects have go in by their catalogue row, as a population
// walks them; everything else keeps the order of its events.
template <typename Rows>
void Loop<Rows>::Prepare(const Step &step)
{
    PrepareObjects(step);
    subjects_.clear();
    for (const uint32_t oid : OidsOf(step))
    {
        std::vector<uint8_t> bytes = standin::ObjectBytes(oid);
        RowStatements &statements = StatementsOf(oid, bytes);
        subjects_.push_back({oid, std::move(bytes), &statements});
    }
    if (step.operation == Operation::Populate)
    {
        std::ranges::stable_sort(subjects_, {},
                                 [](const Subject &subject)
                                 {
                                     return &subject.statements->row;
                                 });
    }
}

template <typename Rows>
RowStatements &Loop<Rows>::StatementsOf(uint32_t oid,
                                        std::vector<uint8_t> &bytes)
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

template <typename Rows>
Cost Loop<Rows>::Run(const Step &step)
{
    Cost cost = {};
    const int64_t written = RowsWritten();
    const int64_t before = ProcessorTime();
    cost.begin = Clock::now().time_since_epoch().count();
    if (Rows::kKeepsLock)
    {
        StepTo(anyRead_, SQLITE_ROW);
    }
    for (const Subject &subject : subjects_)
    {
        RunOne(step.operation, subject);
    }
    sqlite3_reset(anyRead_.get());
    cost.end = Clock::now().time_since_epoch().count();
    cost.processor = ProcessorTime() - before;
    cost.rowsWritten = RowsWritten() - written;
    bus_.Send(kAdded, kFence);
    return cost;
}

template <typename Rows>
void Loop<Rows>::RunOne(Operation operation, const Subject &subject)
{
    if (operation == Operation::Populate)
    {
        Create(subject, false);
        return;
    }
    LookUpType(subject.oid);
    switch (operation)
    {
    case Operation::Populate:
    case Operation::Create:
        Create(subject, true);
        break;
    case Operation::RefreshChanged:
    case Operation::RefreshSame:
        Refresh(subject);
        break;
    case Operation::Delete:
    case Operation::DestroyBunch:
        Delete(subject);
        break;
    }
}

template <typename Rows>
void Loop<Rows>::Create(const Subject &subject, bool announced)
{
    const ObjTypeRow &row = subject.statements->row;
    const auto type = static_cast<uint16_t>(row.objType);
    const Parent *parent = ParentOf(type, subject.oid);
    Write(map_, {StoredOid(subject.oid), static_cast<int>(row.objType)});
    InsertRow(*subject.statements, ObjectView(subject.Object()),
              parent == nullptr ? nullptr : parent->key);
    InsertArrays(row, subject.Object());
    auto whole = Rows::Read(*subject.statements, subject.oid);
    TouchTag(row.table->name);
    if (parent != nullptr)
    {
        Write(linkParent_, {StoredOid(subject.oid), StoredOid(parent->oid)});
    }
    const auto text = Rows::RenderWhole(row, std::move(whole));
    if (announced)
    {
        bus_.Send(kAdded, CString(text));
    }
}

template <typename Rows>
void Loop<Rows>::Refresh(const Subject &subject)
{
    RowStatements &statements = *subject.statements;
    auto before = Rows::Read(statements, subject.oid);
    UpdateRow(statements, ObjectView(subject.Object()), subject.oid);
    auto after = Rows::Read(statements, subject.oid);
    if (const auto text = Rows::RenderChange(statements.row, std::move(before),
                                             std::move(after)))
    {
        bus_.Send(kChanged, CString(*text));
    }
}

template <typename Rows>
void Loop<Rows>::Delete(const Subject &subject)
{
    RowStatements &statements = *subject.statements;
    auto whole = Rows::Read(statements, subject.oid);
    Write(unmap_, {StoredOid(subject.oid)});
    bus_.Send(kRemoved,
              CString(Rows::RenderWhole(statements.row, std::move(whole))));
    byOid_.erase(subject.oid);
}

// Before a create there is no row, which is no failure.
template <typename Rows>
void Loop<Rows>::LookUpType(uint32_t oid)
{
    const StatementReset reset(typeOf_.get());
    sqlite3_bind_int(typeOf_.get(), 1, StoredOid(oid));
    if (sqlite3_step(typeOf_.get()) == SQLITE_ROW)
    {
        sqlite3_column_int(typeOf_.get(), 0);
    }
}

template <typename Rows>
void Loop<Rows>::TouchTag(const char *table)
{
    const StatementReset reset(touchTag_.get());
    sqlite3_bind_text(touchTag_.get(), 1, table, -1, SQLITE_TRANSIENT);
    StepTo(touchTag_, SQLITE_DONE);
}

} // namespace

template <typename Rows>
int RunLoopSide(const Channel &channel, const Scratch &scratch)
{
    gRuntimeRoot = scratch.Root().c_str();
    standin::SetLog(0, nullptr);
    Loop<Rows> loop;
    for (Kind kind = Kind::Run; kind != Kind::Stop;)
    {
        const Request request = channel.Receive();
        kind = request.kind;
        Answer answer = {};
        Attempt(&answer,
                [&]
                {
                    if (kind == Kind::Prepare)
                    {
                        loop.Prepare(request.step);
                    }
                    else if (kind == Kind::Run)
                    {
                        answer.cost = loop.Run(request.step);
                    }
                });
        channel.Send(answer);
    }
    return 0;
}

template int RunLoopSide<ParsedRows>(const Channel &, const Scratch &);
template int RunLoopSide<SplicedRows>(const Channel &, const Scratch &);

} // namespace qdb::bench

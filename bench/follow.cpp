#include "bench/follow.h"

#include "bench/follower.h"
#include "bench/service.h"
#include "bench/workload.h"
#include "db/statement_ptr.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>

namespace qdb::bench
{
namespace
{

constexpr uint32_t kChanged = 5000; // rows of the type
constexpr int kCopies = 5;

double Median(std::vector<double> values)
{
    std::ranges::sort(values);
    return values[values.size() / 2];
}

// A service with its objects, of which those of the changed type come by
// events.
class Source
{
  public:
    Source(const std::string &program, Subscribers &subscribers,
           uint32_t objects)
        : service(program), subscribers_(subscribers)
    {
        service.Execute(
            OperationsFor({Action::Populate, Set::Population, 0, objects, 0}));
        service.Ask(json_pack("{s:s}", "op", "release"));
        service.AwaitReady();
        Run({Action::Create, Set::OneType, 0, kChanged, 0});
    }

    // Returns the processor time that the service took, in nanoseconds.
    int64_t Run(const Step &step)
    {
        service.Execute(OperationsFor(step));
        for (Counter &subscriber : subscribers_)
        {
            subscriber.Begin();
        }
        const Usage before = service.ReadUsage();
        service.Ask(AnnouncementOf(step, 0));
        for (Counter &subscriber : subscribers_)
        {
            subscriber.End(step.count);
        }
        return service.ReadUsage().service - before.service;
    }

    Followed Table() const
    {
        const Measured measured = OneType();
        return {service.scratch.database, measured.table, measured.column};
    }

    Service service;

  private:
    Subscribers &subscribers_;
};

Figures MeasureChanges(Source &source, int passes)
{
    Follower library(FollowByLibrary, source.Table());
    Follower plain(FollowBySignals, source.Table());
    std::vector<std::vector<double>> columns(5);
    for (int pass = 1; pass <= passes; ++pass)
    {
        const Step step = {Action::RefreshChanged, Set::OneType, 0, kChanged,
                           static_cast<uint32_t>(20000 + pass)};
        library.Begin(step.value);
        plain.Begin(step.value);
        const auto service = static_cast<double>(source.Run(step)) / 1e3;
        const auto told = static_cast<double>(library.End(kChanged)) / 1e3;
        const auto parsed = static_cast<double>(plain.End(kChanged)) / 1e3;
        const double values[] = {told / kChanged, parsed / kChanged,
                                 service / kChanged, told / parsed,
                                 told / service};
        for (size_t i = 0; i < columns.size(); ++i)
        {
            columns[i].push_back(values[i]);
        }
    }
    Figures figures = {
        "following, us a change",
        {"library", "plain", "service", "of plain", "of service", "<="},
        {{"refresh, one column, one type", {}}}};
    for (const std::vector<double> &column : columns)
    {
        figures.rows[0].values.push_back(Median(column));
    }
    figures.rows[0].values.push_back(1);
    return figures;
}

// All values of all rows of a table as texts, by SQLite alone. Returns
// nanoseconds of processor time.
int64_t ReadPlainly(const Followed &followed)
{
    const int64_t begin = ProcessorTime(getpid());
    sqlite3 *opened = nullptr;
    sqlite3_open_v2(followed.database.c_str(), &opened, SQLITE_OPEN_READONLY,
                    nullptr);
    const ConnectionPtr connection(opened);
    sqlite3_busy_timeout(opened, 1000);
    sqlite3_stmt *prepared = nullptr;
    sqlite3_prepare_v2(opened, ("SELECT * FROM " + followed.table).c_str(), -1,
                       &prepared, nullptr);
    const StatementPtr statement(prepared);
    int status = SQLITE_ERROR;
    while ((status = sqlite3_step(prepared)) == SQLITE_ROW)
    {
        for (int i = 0; i < sqlite3_column_count(prepared); ++i)
        {
            sqlite3_column_text(prepared, i);
        }
    }
    if (status != SQLITE_DONE)
    {
        throw std::runtime_error("can't read " + followed.table);
    }
    return ProcessorTime(getpid()) - begin;
}

void MeasureCopies(Source &source, Figures *pFigures)
{
    constexpr double kMs = 1e6;
    std::vector<double> elapsed;
    std::vector<double> processor;
    std::vector<double> plain;
    double rows = 0;
    for (int i = 0; i < kCopies; ++i)
    {
        const Follower follower(FollowByLibrary, source.Table());
        const Following &seen = follower.Seen();
        elapsed.push_back(static_cast<double>(seen.elapsed) / kMs);
        processor.push_back(static_cast<double>(seen.processor) / kMs);
        plain.push_back(static_cast<double>(ReadPlainly(source.Table())) / kMs);
        rows = static_cast<double>(seen.rows);
    }
    if (rows < kChanged)
    {
        throw std::runtime_error("rows are missing in a first copy");
    }
    pFigures->rows.push_back({"rows of the type", {rows, NAN}});
    pFigures->rows.push_back({"first copy, ms", {Median(elapsed), 100}});
    pFigures->rows.push_back(
        {"first copy, processor ms", {Median(processor), NAN}});
    pFigures->rows.push_back(
        {"plain SELECT, processor ms", {Median(plain), NAN}});
}

// Above that of a handle which follows nothing.
void MeasureMemory(Source &source, Figures *pFigures)
{
    const std::string &database = source.service.scratch.database;
    const Follower none(FollowByLibrary, {database, "none", ""});
    const Follower all(FollowByLibrary, {database, "", ""});
    constexpr double kMiB = 1 << 20;
    const auto open = static_cast<double>(none.Seen().heap);
    const auto heap = static_cast<double>(all.Seen().heap) - open;
    pFigures->rows.push_back(
        {"heap of an open handle, MiB", {open / kMiB, NAN}});
    pFigures->rows.push_back(
        {"rows of all tables", {static_cast<double>(all.Seen().rows), NAN}});
    pFigures->rows.push_back({"heap for them, MiB", {heap / kMiB, 8}});
}

} // namespace

std::vector<Figures> MeasureFollowing(const std::string &program,
                                      Subscribers &subscribers,
                                      uint32_t objects, int passes)
{
    Source source(program, subscribers, objects);
    Figures rest = {"a follower", {"value", "<="}, {}};
    MeasureCopies(source, &rest);
    MeasureMemory(source, &rest);
    const Figures changes = MeasureChanges(source, passes);
    source.service.End();
    return {changes, rest};
}

} // namespace qdb::bench

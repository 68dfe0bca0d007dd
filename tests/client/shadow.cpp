#include "tests/client/shadow.h"

#include "tests/support/wait.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <set>
#include <utility>

namespace qdb::test
{
namespace
{

std::pair<std::string, int64_t> NameOf(const qdb_row *row)
{
    return {qdb_row_table(row), qdb_row_oid(row)};
}

std::string TextOf(const SeenRow &row, const std::string &column)
{
    const auto found = row.find(column);
    return found == row.end() ? "nothing" : found->second.text;
}

int Take(void *tables, const qdb_row *row)
{
    static_cast<SeenTables *>(tables)->emplace(NameOf(row), Seen(row));
    return 0;
}

} // namespace

SeenRow Seen(const qdb_row *row)
{
    SeenRow seen;
    for (size_t i = 0; i < qdb_row_count(row); ++i)
    {
        const char *text = qdb_row_text(row, i);
        seen[qdb_row_name(row, i)] = {qdb_row_type(row, i),
                                      text == nullptr ? "" : text};
    }
    return seen;
}

SeenTables ReadTables(const std::string &database)
{
    qdb_options options = QDB_OPTIONS_INIT;
    options.database = database.c_str();
    qdb_mirror *mirror = nullptr;
    SeenTables tables;
    EXPECT_EQ(qdb_mirror_open(&options, &mirror), 0);
    const char *const *names = qdb_tables(mirror);
    EXPECT_NE(names, nullptr);
    for (; names != nullptr && *names != nullptr; ++names)
    {
        EXPECT_GE(qdb_mirror_each(mirror, *names, Take, &tables), 0);
    }
    qdb_mirror_close(mirror);
    return tables;
}

Shadow::Shadow(const std::string &database, const std::string &bus)
    : database_(database)
{
    constexpr int kBusyMs = 50;
    qdb_options options = QDB_OPTIONS_INIT;
    options.database = database_.c_str();
    options.bus = bus.c_str();
    options.busy_ms = kBusyMs;
    options.user = this;
    options.row_added = OnAdded;
    options.row_changed = OnChanged;
    options.row_removed = OnRemoved;
    options.ready = OnReady;
    options.resynced = OnResynced;
    EXPECT_EQ(qdb_mirror_open(&options, &mirror_), 0);
}

Shadow::~Shadow()
{
    qdb_mirror_close(mirror_);
}

void Shadow::Process(int quietMs)
{
    pollfd entry = {qdb_mirror_fd(mirror_), POLLIN, 0};
    do
    {
        while (qdb_mirror_process(mirror_) > 0)
        {
        }
    } while (poll(&entry, 1, quietMs) > 0);
}

double Shadow::Settle()
{
    using Clock = std::chrono::steady_clock;
    const auto begin = Clock::now();
    EXPECT_TRUE(WaitUntil(
        [this]
        {
            Process(10);
            return isReady_ && Compare().empty();
        }))
        << Compare();
    EXPECT_EQ(wrong_, "");
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

std::string Shadow::Compare() const
{
    std::string differences;
    SeenTables tables = ReadTables(database_);
    for (const auto &[name, row] : rows_)
    {
        const auto found = tables.find(name);
        if (found == tables.end())
        {
            differences +=
                name.first + " " + std::to_string(name.second) + " is gone\n";
            continue;
        }
        for (const auto &[column, value] : found->second)
        {
            if (column != "SingleRecordEtag" &&
                TextOf(row, column) != value.text)
            {
                differences += name.first + " " + std::to_string(name.second) +
                               " " + column + ": " + TextOf(row, column) +
                               " instead of " + value.text + "\n";
            }
        }
        tables.erase(found);
    }
    for (const auto &[name, row] : tables)
    {
        differences +=
            name.first + " " + std::to_string(name.second) + " is new\n";
    }
    return differences;
}

void Shadow::Complain(const qdb_row *row, const std::string &what)
{
    wrong_ += std::string(qdb_row_table(row)) + " " +
              std::to_string(qdb_row_oid(row)) + " " + what + "\n";
}

void Shadow::OnAdded(void *self, const qdb_row *row)
{
    auto *shadow = static_cast<Shadow *>(self);
    ++shadow->told_;
    if (!shadow->rows_.emplace(NameOf(row), Seen(row)).second)
    {
        shadow->Complain(row, "was added twice");
    }
}

// Names, old values, and that there is a difference at all.
void Shadow::JudgeChange(const qdb_change *change, const SeenRow &before,
                         const SeenRow &now)
{
    const qdb_row *row = qdb_change_row(change);
    std::set<std::string> named;
    const int count = qdb_change_count(change);
    for (size_t at = 0; std::cmp_less(at, count); ++at)
    {
        const std::string column =
            qdb_row_name(row, qdb_change_column(change, at));
        const char *old = nullptr;
        named.insert(column);
        if (qdb_change_old(change, at, &old) != 0 &&
            TextOf(before, column) != (old == nullptr ? "" : old))
        {
            Complain(row, column + " was told as " + TextOf(before, column) +
                              ", and now as having been " +
                              (old == nullptr ? "NULL" : old));
        }
    }
    bool isAny = false;
    for (const auto &[column, value] : now)
    {
        const bool differs =
            column != "SingleRecordEtag" && before.at(column) != value;
        isAny = isAny || differs;
        if (differs && qdb_change_count(change) >= 0 && !named.contains(column))
        {
            Complain(row, column + " has changed without being named, from " +
                              TextOf(before, column) + " to " + value.text);
        }
    }
    if (!isAny)
    {
        Complain(row, "was told twice");
    }
    known_ += count >= 0 ? 1U : 0U;
}

void Shadow::OnChanged(void *self, const qdb_change *change)
{
    auto *shadow = static_cast<Shadow *>(self);
    const qdb_row *row = qdb_change_row(change);
    ++shadow->told_;
    const auto found = shadow->rows_.find(NameOf(row));
    if (found == shadow->rows_.end())
    {
        return shadow->Complain(row, "has changed, and was never added");
    }
    SeenRow now = Seen(row);
    shadow->JudgeChange(change, found->second, now);
    found->second = std::move(now);
}

void Shadow::OnRemoved(void *self, const qdb_row *row)
{
    auto *shadow = static_cast<Shadow *>(self);
    ++shadow->told_;
    if (shadow->rows_.erase(NameOf(row)) == 0)
    {
        shadow->Complain(row, "was removed, and was never added");
    }
}

void Shadow::OnReady(void *self, int isReady)
{
    static_cast<Shadow *>(self)->isReady_ = isReady != 0;
}

void Shadow::OnResynced(void *self, qdb_reason reason, size_t, size_t, size_t)
{
    ++static_cast<Shadow *>(self)->resyncs_.at(reason);
}

} // namespace qdb::test

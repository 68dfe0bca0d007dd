#include "client/follower.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <utility>

namespace qdb::client
{
namespace
{

using Old = std::map<size_t, std::optional<Value>>; // by column

// The second in which the row was written; 0 when it doesn't tell.
uint32_t SecondOf(const qdb_row &row)
{
    const size_t stamp = row.table->stamp;
    return stamp < row.values.size()
               ? static_cast<uint32_t>(
                     std::strtoul(row.values[stamp].text.c_str(), nullptr, 10))
               : 0;
}

// Adds the columns in which the rows differ and that aren't there yet.
void AddDifferences(const qdb_row &before, const qdb_row &now, Old *pOld)
{
    for (size_t i = 0; i < now.values.size(); ++i)
    {
        if (i != now.table->stamp && before.values[i] != now.values[i])
        {
            pOld->emplace(i, before.values[i]);
        }
    }
}

// Of signals that follow each other, the first one to a state that was told.
Old CollectChanges(const std::vector<Signal> &signals, const qdb_row &now)
{
    Old old;
    for (size_t i = 0; i < signals.size(); ++i)
    {
        for (const size_t column : signals[i].changed)
        {
            const auto previous = signals[i].previous.find(column);
            std::optional<Value> value;
            if (previous != signals[i].previous.end())
            {
                value = previous->second;
            }
            else if (i > 0)
            {
                value = signals[i - 1].row.values[column];
            }
            old.emplace(column, std::move(value));
        }
    }
    AddDifferences(signals.back().row, now, &old);
    old.erase(now.table->stamp);
    return old;
}

qdb_change MakeChange(const Old &old, const qdb_row &now)
{
    qdb_change change = {&now, true};
    for (const auto &[column, value] : old)
    {
        if (!value || *value != now.values[column])
        {
            change.columns.push_back(column);
            change.old.push_back(value);
        }
    }
    return change;
}

} // namespace

Follower::Follower(const qdb_options &options, std::set<std::string> tables,
                   Database &database)
    : options_(options), followed_(std::move(tables)), database_(database)
{
}

template <typename Callback, typename Argument>
void Follower::Tell(Callback callback, Argument argument)
{
    if (callback != nullptr)
    {
        isTelling_ = true;
        callback(options_.user, argument);
        isTelling_ = false;
    }
}

bool Follower::IsFollowed(const std::string &table) const
{
    return followed_.empty() || followed_.contains(table);
}

int Follower::Apply(const std::vector<RawSignal> &signals)
{
    std::map<std::pair<const Table *, int64_t>, std::vector<Signal>> rows;
    std::vector<std::pair<const Table *, int64_t>> order;
    for (const RawSignal &raw : signals)
    {
        Signal signal;
        signal.kind = raw.kind;
        if (!reader_.ReadHead(raw.text.c_str(), &signal) ||
            !IsFollowed(signal.table))
        {
            continue;
        }
        const Table *table = database_.FindTable(signal.table);
        if (table == nullptr)
        {
            continue;
        }
        reader_.ReadBody(raw.text.c_str(), *table, &signal);
        const std::pair key(table, signal.oid);
        std::vector<Signal> &list = rows[key];
        if (list.empty())
        {
            order.push_back(key);
        }
        list.push_back(std::move(signal));
    }
    int result = 0;
    for (const auto &key : order)
    {
        const int looked = LookAt(*key.first, key.second, std::move(rows[key]));
        result = result == 0 ? looked : result;
    }
    return result;
}

// The state that was told is the last signal's with its tag. If no signal has
// it, it is that before the first one, unless the row was ahead: then signals
// may still come that are older than it, and which these are only their seconds
// can tell.
qdb_change Follower::Compare(const KnownRow &known,
                             const std::vector<Signal> &signals,
                             const qdb_row &now) const
{
    for (auto signal = signals.rbegin(); signal != signals.rend(); ++signal)
    {
        if (signal->kind != SignalKind::Removed &&
            signal->row.Tag() == known.tag)
        {
            Old old;
            AddDifferences(signal->row, now, &old);
            return MakeChange(old, now);
        }
    }
    const bool isChain =
        !signals.empty() && !isDoubtful_ &&
        (!known.isAhead || SecondOf(signals.front().row) > known.second) &&
        std::ranges::all_of(signals,
                            [](const Signal &signal)
                            {
                                return signal.kind == SignalKind::Changed;
                            });
    return isChain ? MakeChange(CollectChanges(signals, now), now)
                   : qdb_change{&now};
}

void Follower::TellGone(const Table &table, const KnownRow &known,
                        const std::vector<Signal> &signals)
{
    qdb_row last = {&table, known.oid};
    if (!signals.empty())
    {
        last = signals.back().row;
    }
    known_[table.name].Remove(known.oid);
    ++counts_.removed;
    Tell(options_.row_removed, &std::as_const(last));
}

int Follower::LookAt(const Table &table, int64_t oid,
                     std::vector<Signal> signals)
{
    KnownRows &rows = known_[table.name];
    KnownRow *known = rows.Find(oid);
    qdb_row now;
    bool isThere = false;
    if (const int result = database_.Read(table, oid, &now, &isThere))
    {
        return result;
    }
    if (!isThere)
    {
        if (known != nullptr)
        {
            TellGone(table, KnownRow(*known), signals);
        }
        return 0;
    }
    const uint64_t tag = now.Tag();
    const bool isAhead = signals.empty() || signals.back().row.Tag() != tag;
    const uint32_t second = SecondOf(now);
    const KnownRow told = {oid, tag, second, second + 1 < std::time(nullptr),
                           isAhead};
    if (known == nullptr)
    {
        rows.Add(told);
        ++counts_.added;
        Tell(options_.row_added, &std::as_const(now));
        return 0;
    }
    if (known->tag == tag)
    {
        // Without signals nothing is learned of how far these are.
        known->isAhead =
            signals.empty() ? known->isAhead || isDoubtful_ : isAhead;
        known->second = told.second;
        known->isSettled = told.isSettled;
        return 0;
    }
    const qdb_change change = Compare(*known, signals, now);
    *known = told;
    ++counts_.changed;
    Tell(options_.row_changed, &change);
    return 0;
}

int Follower::ScanTable(const Table &table)
{
    std::vector<Stamp> stamps;
    if (const int result = database_.Stamps(table, &stamps))
    {
        return result;
    }
    std::vector<int64_t> doubtful;
    const std::vector<KnownRow> &rows = known_[table.name].All();
    auto known = rows.begin();
    for (const Stamp &stamp : stamps)
    {
        for (; known != rows.end() && known->oid < stamp.oid; ++known)
        {
            doubtful.push_back(known->oid);
        }
        const bool isKnown = known != rows.end() && known->oid == stamp.oid;
        if (!isKnown || known->second != stamp.second || !known->isSettled ||
            isAnotherLife_)
        {
            doubtful.push_back(stamp.oid);
        }
        known += isKnown ? 1 : 0;
    }
    for (; known != rows.end(); ++known)
    {
        doubtful.push_back(known->oid);
    }
    int result = 0;
    for (const int64_t oid : doubtful)
    {
        const int looked = LookAt(table, oid, {});
        result = result == 0 ? looked : result;
    }
    return result;
}

void Follower::Doubt(bool isAnotherLife)
{
    isDoubtful_ = true;
    isAnotherLife_ = isAnotherLife_ || isAnotherLife;
}

int Follower::Scan(Counts *pCounts)
{
    counts_ = {};
    int result = 0;
    for (const Table &table : database_.Tables())
    {
        if (IsFollowed(table.name))
        {
            const int scanned = ScanTable(table);
            result = result == 0 ? scanned : result;
        }
    }
    *pCounts = counts_;
    isDoubtful_ = isDoubtful_ && result != 0;
    isAnotherLife_ = isAnotherLife_ && result != 0;
    return result;
}

} // namespace qdb::client

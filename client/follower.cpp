#include "client/follower.h"

#include "client/old_values.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <span>
#include <utility>

namespace qdb::client
{
namespace
{

// The second in which the row was written; 0 when it doesn't tell.
uint32_t SecondOf(const qdb_row &row)
{
    const size_t stamp = row.table->stamp;
    return stamp < row.values.size()
               ? static_cast<uint32_t>(
                     std::strtoul(row.values[stamp].text.c_str(), nullptr, 10))
               : 0;
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

// Each row once, and the rows of a table together.
int Follower::Apply(const std::vector<RawSignal> &raws)
{
    std::map<const Table *, std::pair<std::vector<int64_t>, Signals>> tables;
    for (const RawSignal &raw : raws)
    {
        const SignalText text(raw.text);
        const std::string name = text.Table();
        const Table *table =
            IsFollowed(name) ? database_.FindTable(name) : nullptr;
        if (table == nullptr)
        {
            continue;
        }
        Signal signal = text.Read(raw.kind, *table);
        auto &[oids, signals] = tables[table];
        std::vector<Signal> &list = signals[signal.oid];
        if (list.empty())
        {
            oids.push_back(signal.oid);
        }
        list.push_back(std::move(signal));
    }
    int result = 0;
    for (auto &[table, found] : tables)
    {
        const int looked = LookAtAll(*table, found.first, &found.second);
        result = result == 0 ? looked : result;
    }
    return result;
}

int Follower::LookAtAll(const Table &table, const std::vector<int64_t> &oids,
                        Signals *pSignals)
{
    std::vector<Signal> none;
    int result = 0;
    std::vector<qdb_row> rows;
    for (size_t at = 0; at < oids.size(); at += Database::kTogether)
    {
        const std::span<const int64_t> some(
            oids.data() + at, std::min(Database::kTogether, oids.size() - at));
        const int read = database_.Read(table, some, &rows);
        result = result == 0 ? read : result;
        for (size_t i = 0; read == 0 && i < some.size(); ++i)
        {
            const auto now = std::ranges::find(rows, some[i], &qdb_row::oid);
            const auto its = pSignals->find(some[i]);
            LookAt(table, some[i], now == rows.end() ? nullptr : &*now,
                   its == pSignals->end() ? &none : &its->second);
        }
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
        if (signal->kind != SignalKind::Removed && signal->tag == known.tag)
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
                            }) &&
        // What signals don't tell of may have changed without one.
        (signals.front().missing.empty() ||
         BeginsWith(signals.front(), known.tag));
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

void Follower::LookAt(const Table &table, int64_t oid, const qdb_row *now,
                      std::vector<Signal> *pSignals)
{
    const KnownRow *known = known_[table.name].Find(oid);
    if (now != nullptr)
    {
        for (Signal &signal : *pSignals)
        {
            signal.Complete(*now);
        }
        TellThere(table, *now, *pSignals);
    }
    else if (known != nullptr)
    {
        TellGone(table, KnownRow(*known), *pSignals);
    }
}

void Follower::TellThere(const Table &table, const qdb_row &now,
                         const std::vector<Signal> &signals)
{
    KnownRows &rows = known_[table.name];
    KnownRow *known = rows.Find(now.oid);
    const uint64_t tag = now.Tag();
    const bool isAhead = signals.empty() || signals.back().tag != tag;
    const uint32_t second = SecondOf(now);
    const KnownRow told = {now.oid, tag, second,
                           second + 1 < std::time(nullptr), isAhead};
    if (known == nullptr)
    {
        rows.Add(told);
        ++counts_.added;
        Tell(options_.row_added, &now);
        return;
    }
    if (known->tag == tag)
    {
        // Without signals nothing is learned of how far these are.
        known->isAhead =
            signals.empty() ? known->isAhead || isDoubtful_ : isAhead;
        known->second = told.second;
        known->isSettled = told.isSettled;
        return;
    }
    const qdb_change change = Compare(*known, signals, now);
    *known = told;
    ++counts_.changed;
    Tell(options_.row_changed, &change);
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
    Signals none;
    return LookAtAll(table, doubtful, &none);
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

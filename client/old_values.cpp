#include "client/old_values.h"

#include <utility>

namespace qdb::client
{

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

bool BeginsWith(const Signal &signal, uint64_t tag)
{
    qdb_row before = signal.row;
    for (const size_t column : signal.changed)
    {
        const auto previous = signal.previous.find(column);
        if (previous != signal.previous.end())
        {
            before.values[column] = previous->second;
        }
        else if (column != before.table->stamp)
        {
            return false;
        }
    }
    return before.Tag() == tag;
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

} // namespace qdb::client

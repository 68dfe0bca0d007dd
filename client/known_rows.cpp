#include "client/known_rows.h"

#include <algorithm>

namespace qdb::client
{

std::vector<KnownRow>::iterator KnownRows::At(int64_t oid)
{
    return std::ranges::lower_bound(rows_, oid, {}, &KnownRow::oid);
}

KnownRow *KnownRows::Find(int64_t oid)
{
    const auto at = At(oid);
    return at != rows_.end() && at->oid == oid ? &*at : nullptr;
}

void KnownRows::Add(const KnownRow &row)
{
    rows_.insert(At(row.oid), row);
}

void KnownRows::Remove(int64_t oid)
{
    const auto at = At(oid);
    if (at != rows_.end() && at->oid == oid)
    {
        rows_.erase(at);
    }
}

} // namespace qdb::client

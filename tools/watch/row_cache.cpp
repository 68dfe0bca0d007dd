// A list in the order of use, with an index into it by table and OID.
#include "tools/watch/row_cache.h"

namespace qdb::watch
{

void RowCache::Complete(Change &change)
{
    const Key key(change.table, change.oid);
    const auto found = index_.find(key);
    if (found != index_.end())
    {
        const json_t *last = found->second->second.get();
        const char *name;
        json_t *value;
        json_object_foreach(change.changed.get(), name, value)
        {
            json_t *old = json_object_get(last, name);
            if (old != nullptr &&
                json_object_get(change.previous.get(), name) == nullptr)
            {
                json_object_set(change.previous.get(), name, old);
            }
        }
        rows_.erase(found->second);
        index_.erase(found);
    }
    if (change.kind != Kind::Removed)
    {
        Keep(key, change.row.get());
    }
}

void RowCache::Keep(const Key &key, json_t *row)
{
    rows_.emplace_front(key, Share(row));
    index_[key] = rows_.begin();
    if (rows_.size() > limit_)
    {
        index_.erase(rows_.back().first);
        rows_.pop_back();
    }
}

} // namespace qdb::watch

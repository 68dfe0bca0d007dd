// The rows last seen, for the old values that most change signals leave out.
#pragma once

#include "tools/watch/change.h"

#include <cstddef>
#include <list>
#include <map>
#include <string>
#include <utility>

namespace qdb::watch
{

class RowCache
{
  public:
    // Keeps at most `limit` rows, those used last.
    explicit RowCache(size_t limit) : limit_(limit)
    {
    }

    // Adds to change.previous the old value of every changed column that it
    // lacks and that the row last seen has. Then keeps the new row in its
    // place; a removed one is forgotten.
    void Complete(Change &change);

  private:
    using Key = std::pair<std::string, int64_t>; // table and OID
    using Rows = std::list<std::pair<Key, JsonPtr>>;

    void Keep(const Key &key, json_t *row);

    size_t limit_;
    Rows rows_; // the one used last in front
    std::map<Key, Rows::iterator> index_;
};

} // namespace qdb::watch

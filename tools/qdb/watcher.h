// What qdb watch prints for what it is told: the state between callbacks and
// bytes of the pipe, without any input or output of its own.
#pragma once

#include "tools/qdb/change.h"
#include "tools/qdb/pipe_parser.h"

#include <quillondb/client.h>

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>

namespace qdb::tool
{

struct WatchOptions
{
    bool isJson = false;          // lines for programs, not for people
    bool isColoured = false;      // only for people
    bool isAll = false;           // begin with the rows that are there
    std::set<std::string> tables; // none: all of them
};

class Watcher
{
  public:
    explicit Watcher(WatchOptions options);

    // A row as it now is, new or changed. It is kept, so that its next change
    // can be told with old values. `time` is for the lines for people.
    void OnRow(const std::string &table, int64_t oid, const std::string &key,
               JsonPtr row, std::string_view time);

    // The row is gone. One that isn't known is none.
    void OnRemoved(const std::string &table, int64_t oid,
                   std::string_view time);

    // The first time, the rows that are there have all been told of.
    void OnReady(bool isReady);

    void OnResynced(qdb_reason reason, size_t added, size_t changed,
                    size_t removed, std::string_view time);

    // The next bytes of the telemetry pipe.
    void OnPipe(std::string_view bytes, std::string_view time);

    // The lines for standard output since the last call, and those for standard
    // error, each with its newline.
    std::string TakeLines();
    std::string TakeNotes();

  private:
    // Texts, since most rows never change.
    struct Kept
    {
        std::string key;
        std::string json;
    };

    template <typename Event>
    void Tell(const Event &event, std::string_view time);

    const WatchOptions options_;
    std::map<std::pair<std::string, int64_t>, Kept> rows_; // by table and OID
    bool hasBegun_ = false; // all rows that were there have been told of
    PipeParser pipe_;
    std::string lines_;
    std::string notes_;
};

} // namespace qdb::tool

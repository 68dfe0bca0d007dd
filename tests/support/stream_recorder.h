// What single operations of the service make visible, recorded as text.
#pragma once

#include "objects/schema/rows.h"
#include "tests/support/change_listener.h"
#include "tests/support/stream_recording.h"
#include "tests/support/temp_root.h"

#include <functional>
#include <map>
#include <set>
#include <string>

namespace qdb::test
{

// An object and the row of the catalogue that it takes.
struct Subject
{
    const ObjTypeRow *row;
    uint32_t oid;
};

// Watches the service in this process, whose database and pipe are those of
// `root`, which outlives it. Signals must be enabled. One thread.
class StreamRecorder
{
  public:
    explicit StreamRecorder(const TempRoot &root)
        : root_(root), pipe_(root.Pipe())
    {
    }

    // Operations from here on are kept without cuts, or with them.
    void KeepWhole(bool whole)
    {
        whole_ = whole;
    }

    // Carries out an operation and records its result, signals, telemetry
    // records, failures that were kept for later, the subject's table
    // afterwards, and all log lines, this thread's first. What is the
    // subject's alone reads the same for all subjects in the log.
    void Record(const std::string &name, const Subject &subject,
                const std::function<int()> &act);

    // The same for one that concerns several tables: those of the types are
    // shown, or all. A long log is cut, too.
    // What it starts on other threads has to be over when it returns.
    void RecordAll(const std::string &name, const std::function<int()> &act,
                   const std::set<uint32_t> &types = {});

    // What has happened since the last operation isn't recorded.
    void Forget();

    const Stream &Recorded() const
    {
        return stream_;
    }

  private:
    Operation Watch(const std::string &name, const std::function<int()> &act);
    void Keep(Operation operation, const std::string &tableSql);
    const std::string &TableSql(const Table &table);

    const TempRoot &root_;
    ChangeListener listener_;
    PipeReader pipe_;
    bool whole_ = false;
    std::map<std::string, std::string> tableSql_;
    Stream stream_;
};

} // namespace qdb::test

// What a consumer is told: each difference between the rows that it was told of
// and those in the database, once.
//
// A signal says which row to look at, the database says what the row is. It may
// be ahead of the signals by then; these find nothing new when they come. A row
// that was told can be recognised by its tag, and so a signal that tells of
// exactly that state: what comes with later ones has its old values from there.
//
// Between signals a scan finds what came without one, or whose signal was lost.
// It looks at OIDs and at the seconds in which rows were written, and reads the
// rows that may differ.
#pragma once

#include "client/database.h"
#include "client/known_rows.h"
#include "client/signal_text.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

struct qdb_change
{
    const qdb_row *row = nullptr;
    bool isKnown = false; // which columns differ
    std::vector<size_t> columns = {};
    std::vector<std::optional<qdb::client::Value>> old = {}; // one for each
};

namespace qdb::client
{

// A signal as it came.
struct RawSignal
{
    SignalKind kind;
    std::string text;
};

struct Counts
{
    size_t added = 0;
    size_t changed = 0;
    size_t removed = 0;
};

class Follower
{
  public:
    // `tables`: those that are followed; empty: all. Keeps references.
    Follower(const qdb_options &options, std::set<std::string> tables,
             Database &database);

    // Looks at the rows of the signals. A row that can't be read is left to the
    // next scan: the result is not 0 then.
    int Apply(const std::vector<RawSignal> &signals);

    // What was told isn't what the next signals begin with: some were lost, or
    // the rows are another service's. Until a whole scan.
    void Doubt(bool isAnotherLife);

    // Looks at all rows. On failure what was found so far has been told.
    int Scan(Counts *pCounts);

    // True in a callback.
    bool IsTelling() const
    {
        return isTelling_;
    }

  private:
    bool IsFollowed(const std::string &table) const;
    using Signals = std::map<int64_t, std::vector<Signal>>; // by OID
    // What the signals leave out is filled in from the rows.
    int LookAtAll(const Table &table, const std::vector<int64_t> &oids,
                  Signals *pSignals);
    void LookAt(const Table &table, int64_t oid, const qdb_row *now,
                std::vector<Signal> *pSignals);
    void TellThere(const Table &table, const qdb_row &now,
                   const std::vector<Signal> &signals);
    void TellGone(const Table &table, const KnownRow &known,
                  const std::vector<Signal> &signals);
    qdb_change Compare(const KnownRow &known,
                       const std::vector<Signal> &signals,
                       const qdb_row &now) const;
    int ScanTable(const Table &table);

    template <typename Callback, typename Argument>
    void Tell(Callback callback, Argument argument);

    const qdb_options &options_;
    const std::set<std::string> followed_;
    Database &database_;
    std::map<std::string, KnownRows> known_; // by table
    Counts counts_;
    bool isTelling_ = false;
    bool isDoubtful_ = false;
    bool isAnotherLife_ = false;
};

} // namespace qdb::client

// The database as its readers see it: read-only, one statement at a time.
#pragma once

#include "client/row.h"
#include "client/statement.h"

#include <sys/types.h>

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace qdb::client
{

// An OID with the second in which its row was written.
struct Stamp
{
    int64_t oid;
    uint32_t second;
};

// Results are 0 or a negative errno: -EBUSY when the database stayed busy,
// -ENODATA when there is no file, or none with tables, -EIO for anything else.
class Database
{
  public:
    Database(std::string path, int busyMs);

    // Opens the file if it isn't, and anew if another one is in its place.
    // *pIsNew: it was opened; all pointers to tables have ended then.
    int Open(bool *pIsNew);

    // A number that changes with every change of the database; 0 on failure.
    int64_t Version();

    // What the mirrored attribute of readiness says; false where there is none.
    bool IsReady();

    // No object has a row.
    bool IsEmpty();

    const std::vector<Table> &Tables() const
    {
        return tables_;
    }
    const Table *FindTable(const std::string &name) const; // NULL: none

    // What follows up to the next one waits for a busy database no longer than
    // the handle was told, in all.
    void BeginCall()
    {
        waitedMs_ = 0;
    }

    const std::string &Path() const
    {
        return path_;
    }
    int BusyMs() const
    {
        return busyMs_;
    }

    // Reads the rows that there are of at most kTogether OIDs, by one statement
    // and in their order. Buffers of *pRows are used again.
    static constexpr size_t kTogether = 64;
    int Read(const Table &table, std::span<const int64_t> oids,
             std::vector<qdb_row> *pRows);

    // The OIDs of rows with the key, in their order.
    int FindKey(const Table &table, const std::string &key,
                std::vector<int64_t> *pOids);

    // How many rows a table has.
    int Count(const Table &table, int64_t *pCount);

    // All rows of a table by OID, in ascending order.
    int Stamps(const Table &table, std::vector<Stamp> *pStamps);

  private:
    int Load();
    int LoadTable(Table *pTable);
    sqlite3_stmt *Prepared(const std::string &sql);
    int Step(sqlite3_stmt *statement, bool *pIsRow);
    bool Answers(const char *sql); // by a 1
    int ReadArrays(const Table &table, qdb_row *pRow);
    int ReadSide(const Table &table, const SideTable &side, qdb_row *pRow);

    const std::string path_;
    static int OnBusy(void *self, int attempts);

    const int busyMs_;
    int waitedMs_ = 0; // in this call
    DatabasePtr handle_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
    std::vector<Table> tables_;
    std::map<std::string, StatementPtr> statements_; // by their SQL
};

} // namespace qdb::client

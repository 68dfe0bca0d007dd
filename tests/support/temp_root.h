// A runtime root of the test's own, with the directories and the database that
// the service expects to find.
#pragma once

#include <string>
#include <vector>

namespace qdb::test
{

// A directory that is removed with all it holds.
class TempRoot
{
  public:
    TempRoot();
    ~TempRoot();
    TempRoot(const TempRoot &) = delete;
    TempRoot &operator=(const TempRoot &) = delete;

    const std::string &Path() const
    {
        return path_;
    }
    std::string Database() const;
    std::string Statistics() const;
    std::string Pipe() const;

    // Makes the database file anew, with the schema and no rows.
    void MakeDatabase() const;

    // Makes the telemetry pipe's file.
    void MakePipe() const;

  private:
    std::string path_;
};

// Runs a query on a connection of its own, as any other process would. Each
// row becomes its columns' texts joined by '|'; NULL reads "NULL". A query
// that fails gives one row with SQLite's error.
std::vector<std::string> Query(const std::string &database,
                               const std::string &sql);

// The one value of a query that gives one row.
std::string QueryValue(const std::string &database, const std::string &sql);

} // namespace qdb::test

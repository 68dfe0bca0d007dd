// A consumer's copy of all tables, made of nothing but what a mirror tells, and
// what would be wrong with its telling.
#pragma once

#include <quillondb/client.h>

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace qdb::test
{

// A value as a consumer sees it.
struct SeenValue
{
    qdb_type type;
    std::string text;

    bool operator==(const SeenValue &) const = default;
};
using SeenRow = std::map<std::string, SeenValue>; // by column
using SeenTables = std::map<std::pair<std::string, int64_t>, SeenRow>;

SeenRow Seen(const qdb_row *row);

// All rows as they are.
SeenTables ReadTables(const std::string &database);

class Shadow
{
  public:
    // A handle that tells this shadow. Ends with it.
    Shadow(const std::string &database, const std::string &bus);
    ~Shadow();
    Shadow(const Shadow &) = delete;
    Shadow &operator=(const Shadow &) = delete;

    // Lets the mirror work until there is nothing to do for so long.
    void Process(int quietMs);

    // Waits until the shadow is what the tables are, and expects that nothing
    // was told twice or wrongly until then. Returns the seconds that it took.
    double Settle();

    static constexpr int kReasons = 8;

    bool IsReady() const
    {
        return isReady_;
    }
    int Resyncs(qdb_reason reason) const
    {
        return resyncs_[reason];
    }
    size_t Told() const
    {
        return told_;
    }
    size_t Known() const
    {
        return known_;
    }

  private:
    // What the tables have and the shadow doesn't, or otherwise; "": nothing.
    std::string Compare() const;

    static void OnAdded(void *self, const qdb_row *row);
    static void OnChanged(void *self, const qdb_change *change);
    static void OnRemoved(void *self, const qdb_row *row);
    static void OnReady(void *self, int isReady);
    static void OnResynced(void *self, qdb_reason reason, size_t, size_t,
                           size_t);
    void JudgeChange(const qdb_change *change, const SeenRow &before,
                     const SeenRow &now);
    void Complain(const qdb_row *row, const std::string &what);

    const std::string database_;
    qdb_mirror *mirror_ = nullptr;
    SeenTables rows_;
    std::string wrong_; // what was told and can't be, a line each
    bool isReady_ = false;
    std::array<int, kReasons> resyncs_ = {}; // by qdb_reason
    size_t told_ = 0;                        // differences
    size_t known_ = 0;                       // changes with all columns known
};

} // namespace qdb::test

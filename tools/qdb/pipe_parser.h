// Records of the telemetry pipe: ||database|table|rowid|operation||.
//
// Records follow each other without anything between them. A writer may go
// away in the middle of one and another may come, and a read ends anywhere, so
// the parser takes bytes as they come and finds its way back at the next "||"
// when it meets what is no record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qdb::tool
{

// Operations, SQLite's action codes.
inline constexpr int kDelete = 9;
inline constexpr int kInsert = 18;
inline constexpr int kUpdate = 23;

struct PipeRecord
{
    std::string table;
    int64_t rowid = 0; // 0, with kDelete: all rows of the table
    int operation = 0;
};

class PipeParser
{
  public:
    struct Result
    {
        std::vector<PipeRecord> records;
        size_t gaps = 0; // stretches of other bytes that began
    };

    // Takes the next bytes and gives the records that they complete.
    Result Feed(std::string_view bytes);

  private:
    bool Step(Result &result);
    void Skip(size_t count, Result &result);

    std::string pending_; // begins where the next record may
    bool inGap_ = false;  // no record since the last bytes skipped
};

} // namespace qdb::tool

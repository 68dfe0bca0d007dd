// What qdb-watch prints for what it sees: the state between signals and bytes
// of the pipe, without any input or output of its own.
#pragma once

#include "tools/watch/change.h"
#include "tools/watch/pipe_parser.h"
#include "tools/watch/row_cache.h"

#include <string>
#include <string_view>
#include <vector>

namespace qdb::watch
{

struct Options
{
    bool json = false;   // lines for programs, not for people
    bool colour = false; // only for people
    std::string table;   // "": all tables
};

struct Output
{
    std::string lines; // for standard output, each with its newline
    std::vector<std::string> errors; // for standard error, without
};

class Watcher
{
  public:
    explicit Watcher(Options options);

    // A signal with this argument. `time` is for the lines for people.
    Output OnSignal(Kind kind, const char *text, std::string_view time);

    // The next bytes of the telemetry pipe.
    Output OnPipe(std::string_view bytes, std::string_view time);

  private:
    bool Wanted(const std::string &table) const;

    template <typename Event>
    std::string Line(const Event &event, std::string_view time) const;

    Options options_;
    RowCache rows_;
    PipeParser pipe_;
};

} // namespace qdb::watch

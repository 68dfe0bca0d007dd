// Changes and telemetry records as lines of text, without a newline.
//
// The form for people leaves out SingleRecordEtag, shortens long values, and
// shows control characters as escapes, so that no text of an object can do
// anything to the terminal. The form for programs is one JSON object per line
// and leaves out nothing.
#pragma once

#include "tools/watch/change.h"
#include "tools/watch/pipe_parser.h"

#include <string>
#include <string_view>

namespace qdb::watch
{

// TIME TABLE OID Added KEY
// TIME TABLE OID Changed KEY: COLUMN OLD -> NEW, COLUMN[INDEX] OLD -> NEW ...
// TIME TABLE OID Removed KEY
//
// KEY is the row's key or name if it has one; OLD is left out if unknown.
// `colour`: with colours for a terminal.
std::string ForPeople(const Change &change, std::string_view time, bool colour);

// TIME pipe TABLE row ROWID insert|update|delete
std::string ForPeople(const PipeRecord &record, std::string_view time,
                      bool colour);

// {"kind": "Changed", "table": ..., "oid": ..., "row": {...},
//  "changed": {...}, "previous": {...}}; the last two only for Changed.
std::string ForPrograms(const Change &change);

// {"kind": "Pipe", "table": ..., "rowid": ..., "operation": "update"}
std::string ForPrograms(const PipeRecord &record);

} // namespace qdb::watch

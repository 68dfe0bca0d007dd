// Changes and telemetry records as lines of text, without a newline.
//
// The form for people leaves out SingleRecordEtag, shortens long values, and
// shows control characters as escapes, so that no text of an object can do
// anything to the terminal. The form for programs is one JSON object per line
// and leaves out nothing.
#pragma once

#include "tools/qdb/change.h"
#include "tools/qdb/pipe_parser.h"

#include <string>
#include <string_view>

namespace qdb::tool
{

// TIME TABLE OID Present KEY
// TIME TABLE OID Added KEY
// TIME TABLE OID Changed KEY: COLUMN OLD -> NEW, COLUMN[INDEX] OLD -> NEW ...
// TIME TABLE OID Removed KEY
//
// KEY is left out of a row without one, OLD of an element that is new.
// `colour`: with colours for a terminal.
std::string ForPeople(const Change &change, std::string_view time, bool colour);

// TIME resync, REASON: N added, N changed, N removed
std::string ForPeople(const Resync &resync, std::string_view time, bool colour);

// TIME pipe TABLE row ROWID insert|update|delete
std::string ForPeople(const PipeRecord &record, std::string_view time,
                      bool colour);

// {"kind": "Changed", "table": ..., "oid": ..., "row": {...},
//  "changed": {...}, "previous": {...}}; the last two only for Changed.
std::string ForPrograms(const Change &change);

// {"kind": "Resync", "reason": ..., "added": N, "changed": N, "removed": N}
std::string ForPrograms(const Resync &resync);

// {"kind": "Pipe", "table": ..., "rowid": ..., "operation": "update"}
std::string ForPrograms(const PipeRecord &record);

} // namespace qdb::tool

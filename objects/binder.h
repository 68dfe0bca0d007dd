// Moves an object's fields into the parameters of a statement.
#pragma once

#include "core/platform_ptr.h"
#include "objects/catalogue.h"
#include "objects/object_view.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string_view>

namespace qdb
{

// What a statement is bound for.
enum class BindMode
{
    Insert,
    Update, // leaves out what only the INSERT writes; the OID comes last
};

// The key of an object's parent, as the platform told it.
struct KeyOfParent
{
    KeyPtr text;        // NULL: none
    bool asked = false; // there is a parent
    int status = 0;     // the platform's, for the log
};

// Asks the platform for the key, and so needs to be called without the turn.
// The parent may be NULL.
KeyOfParent FetchParentKey(const DataObjHeader *pParentDOH);

// Binds the object's columns to the row's statement, in the order of its
// parameters; texts are copied. The parent's key goes into an INSERT. rawGuard
// binds 0 behind the last parameter. Returns 0, the OR of the failed binds'
// codes, or 8216 for an object that cannot be read as it stands; the binds made
// before stay in the statement.
int bind_values_to_statement(sqlite3_stmt *statement, const ObjTypeRow &row,
                             const DataObjHeader *pDOH, const KeyOfParent &key,
                             BindMode mode, bool rawGuard);

// Whether the column is one that the rows of its type never fill, though their
// objects have it.
inline bool IsNeverStored(const ObjTypeRow &row, const Column &column)
{
    static constexpr std::string_view kNames[] = {
        "CurrentReleaseDate",
        "PreviousReleaseDate",
        "PreviousVersionHash",
        "Sha256String",
    };
    return row.Has(Trait::WithholdsReleases) &&
           std::ranges::find(kNames, column.name) != std::end(kNames);
}

// Binds one field that needs nothing but the object; `base` is added to the
// source's offset. A field that isn't wholly inside the object is NULL. Not
// for ParentKey. Returns SQLite's code or 8216.
int BindField(sqlite3_stmt *statement, int parameter, const Source &source,
              const ObjectView &object, uint64_t base = 0);

} // namespace qdb

// The three bookkeeping tables.
//
// ActiveOIDMapping tells which OIDs are live, and is the parent of every object
// table: a row that leaves it takes the object's row along. ParentChildMapping
// holds the parent links, TblEtag one change tag per table. Each writer has a
// statement and a mutex of its own, held from the use of the statement to its
// reset; SqliteStepMutex is taken inside it. An OID is bound sign-extended
// wherever it is bound.
#pragma once

#include <cstdint>

namespace qdb
{

// What a type's creates do while their OID is still mapped.
enum class DeletePatience
{
    None,    // try again at once, and not at all with a backlog of events
    Pauses,  // pause before that
    KeepsOn, // pause, and try again with a backlog, too
};

// Maps an OID to its type. An OID that is still mapped, mostly because its
// delete has not finished on another thread, is waited for, with the calling
// thread's claim on the object (core/object_order.h) left to that delete.
// Returns 0, the status of the failing prepare, bind or step (19: still mapped;
// 5, 6: the database stayed busy), 8216 when the wait has put the object out of
// date, or -1 without a connection.
int insertinActiveOIDMapping(uint32_t oid, uint32_t objType,
                             DeletePatience patience = DeletePatience::None);

// Sets a table's change tag to the present second; a table without a tag is no
// error. Returns 0, the status of prepare or bind, or -1.
int InsertInTblEtag(const char *tableName);

// Records one parent link. Returns 0, the status of prepare or bind, or -1.
int InsertInParentChildMappingTable(uint32_t oid, uint32_t parentOid);

// The object type of a mapped OID; 0 when it isn't mapped or nothing could be
// read.
uint32_t GetObjType(uint32_t oid);

// How many OIDs are mapped; 0 when that can't be read.
int64_t CountObjects();

// Finalises the statements of these functions. No thread may use them any more.
void FinalizeMappingStatements();

// An OID as SQLite holds it: OIDs above 0x7FFFFFFF are negative.
constexpr int StoredOid(uint32_t oid)
{
    return static_cast<int>(oid);
}

} // namespace qdb

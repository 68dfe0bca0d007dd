// Objects that come, change and go without an event, and the events that tell
// the service so, on the caller's thread.
#pragma once

#include "standin/standin.h"
#include "tests/support/event_records.h"
#include "tests/support/stream_recorder.h"

namespace qdb::test
{

inline constexpr uint16_t kDirty = 3;
inline constexpr uint16_t kCreate = 7;
inline constexpr uint16_t kDestroy = 8;
// No events: the handler alone, without the loops around it.
inline constexpr uint16_t kRefreshOnce = 103;
inline constexpr uint16_t kCreateOnce = 107;

inline constexpr uint32_t kParentOid = 0x500;
inline constexpr uint32_t kOtherParentOid = 0x501;
inline constexpr char kGroupKey[] = "Test.1#Group.1";
inline constexpr char kAttributeKey[] = "Test.1#Group.1#Name";

// The parents of all objects, and the object that status changes of others are
// told from.
void PutParents();

// Makes the subject's object, below these parents, or gives an object that is
// there the values. Attributes all have the one key. The values get it.
void Put(const Subject &subject, json_t *values,
         const Words &parents = {kParentOid});

// Removes the subject's object, if there is one.
void Remove(const Subject &subject);

// Carries out the event as a worker does, or calls the handler once.
int Notify(const Subject &subject, uint16_t kind);

// Carries out a status change. The object that comes with it has another
// status than the Data Manager's.
int NotifyStatus(const Subject &subject);

} // namespace qdb::test

// Event delivery: a queue, and one thread that calls the listener.
//
// Records are delivered one at a time and in the order in which they were
// queued, with no lock held. They wait while no listener is registered. A
// record belongs to this file until its callback has returned.
#pragma once

#include "platform/zoil.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace standin
{

enum EventType : uint16_t
{
    kDirtyList = 3,
    kStatusChange = 4,
    kCreate = 7,
    kDestroy = 8,
    kDetached = 12,
};

// Registers the one listener; makes the thread at the first call. 0; 2 for
// NULL; 1 while another one is registered.
int AddListener(ZOILEventListener listener);

// No delivery begins after the return; one in flight isn't waited for. 0; 2
// when the listener isn't the registered one.
int RemoveListener(ZOILEventListener listener);

bool HasListener();

// As SendObjectList, with a record for each object. All are queued before the
// first is delivered, so that making them doesn't hold the listener up.
int64_t SendObjects(uint16_t eventType, std::span<const uint32_t> oids);

// Notes when the listener is called for the next records, `most` of them; what
// has been noted since, in nanoseconds of the steady clock.
void NoteDeliveries(size_t most);
std::vector<int64_t> Deliveries();

// Forgets the records that wait.
void DropRecords();

// Waits until at most `left` records are queued or in their callback: 0 for
// none, so that all callbacks have returned. False at the deadline, if there
// is one, and, without one, when nobody listens any more.
using Deadline = std::optional<std::chrono::steady_clock::time_point>;
bool WaitForRecords(size_t left, Deadline deadline);

} // namespace standin

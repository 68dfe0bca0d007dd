// The lane: how many workers are at work at once.
//
// The work on a record is short, and most of it is one statement after the
// other at the one database. Ten workers that hand its locks around spend more
// time on waking each other than on the work. So one of them goes on from
// record to record as long as there are any, and the others wait in line.
//
// That must not let one record that takes long, by a Data Manager, a bus or a
// database that doesn't answer, hold up all others: when no record has been
// done for a moment, the next in line starts beside those who are at work, up
// to all ten.
#pragma once

namespace qdb
{

// Makes the calling thread wait its turn in AwaitRecord while it lives.
class LaneUser
{
  public:
    LaneUser();
    ~LaneUser();
    LaneUser(const LaneUser &) = delete;
    LaneUser &operator=(const LaneUser &) = delete;
};

// Waits for gQdbEventSem and, with a LaneUser, for the lane. What the thread
// did since the last call counts as a record done. Holds no lock when it
// returns.
void AwaitRecord();

} // namespace qdb

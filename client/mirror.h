// The handle: bus, database and clock behind one descriptor, and the order of
// things: subscribed first, then readiness, then the rows, then what came
// meanwhile.
#pragma once

#include "client/change_bus.h"
#include "core/descriptor.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

// What the C interface gives out. All of it belongs to the caller's thread, but
// for isStopped and wake.
struct qdb_mirror
{
    explicit qdb_mirror(const qdb_options &given);

    // Does what there is to do; 1 when there is more.
    int Process();

    // For a reader: false when there is no database.
    bool OpenDatabase();

    // 0, -ENODATA or -ENOENT.
    int FindTable(const char *name, const qdb::client::Table **pTable);

    // Gives the rows that there are of these OIDs, some at a time. Returns how
    // many, or a negative errno.
    int Give(const qdb::client::Table &table, const std::vector<int64_t> &oids,
             qdb_row_callback callback, void *user);

    qdb_options options;
    qdb::client::Database database;
    qdb::client::ChangeBus bus;
    qdb::client::Follower follower;
    qdb::Descriptor epoll;
    qdb::Descriptor timer;
    qdb::Descriptor wake;
    std::atomic<bool> isStopped = false;
    qdb_state state = QDB_NO_BUS;
    std::string error = {}; // of the last select

    // What was given out last.
    std::vector<const char *> tables;
    std::vector<qdb_column> columns;

  private:
    void Follow(bool isTick, bool isMore);
    void FollowReady(bool isTick, bool isMore);
    bool MayBeSilent(bool isTick, bool isMore);
    bool IsServed(bool isTick);
    bool Scan(bool isTick);
    void SetState(qdb_state now);
    qdb_state FindState(int opened) const;
    void Watch(int fd, uint32_t events);
    void Arm();

    int reason_ = 0;                // for the next scan; 0: none
    bool isCutShort_ = false;       // the last scan met a busy database
    qdb::client::Counts told_ = {}; // by scans that were cut short
    int64_t version_ = 0; // of the database when it was last scanned; 0: never
    int64_t seen_ = 0;    // of the database at the last look
    int quiet_ = -1;      // looks at which it was the same; -1: none yet
    bool hasHeard_ = false; // a signal since the last tick
    int ticksSinceScan_ = 0;
    bool hasStirred_ = false; // since the service was last here
    int watched_ = -1;        // the bus's descriptor in the epoll set
    uint64_t nextTick_ = 0;
};

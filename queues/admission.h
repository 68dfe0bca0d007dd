// Admission: how many workers are at work at once.
//
// Most of the work on a record is one statement after the other at the one
// database. Ten workers that hand its locks around spend more time on waking
// each other than on the work, so that one worker that goes on from record to
// record is the fastest. Where records wait for something else, though, mostly
// for a platform that takes its time to answer, as many must be at work as keep
// the database busy meanwhile.
//
// So it is measured, of each record, how long it waited (core/waiting.h) and
// how long it had the turn at the database; of both the smoothed value over the
// last few records counts. One worker is let in, and one more for each half of
// a turn's time that a record spends waiting, up to all ten. One that has not
// come back for many times a record's time hangs, and doesn't count. At a stop
// all are let in: what is queued is still carried out.
#pragma once

namespace qdb
{

// Makes the calling thread wait for admission in AwaitRecord while it lives.
class AdmittedWorker
{
  public:
    AdmittedWorker();
    ~AdmittedWorker();
    AdmittedWorker(const AdmittedWorker &) = delete;
    AdmittedWorker &operator=(const AdmittedWorker &) = delete;
};

// Waits for gQdbEventSem and, with an AdmittedWorker, for admission. What the
// thread did since the last call counts as a record. Holds no lock when it
// returns.
void AwaitRecord();

} // namespace qdb

// The threads of the service: starting, cancelling and joining them while a
// stop may come at any moment.
//
// Invariants, all under one mutex:
// 1. No thread is started once a stop has been requested.
// 2. Only a thread that was started and is not being joined is cancelled: a
//    handle is never used after its join.
//
// An entry ends by returning, not by pthread_exit; an exception that leaves it
// ends it with a line in the log. A cancelled thread runs no code of this file
// any more: whoever cancels it notes its end.
#pragma once

#include <pthread.h>

namespace qdb
{

using ThreadEntry = void *(*)(void *);

// The number of event workers; also of the stop records that end them.
inline constexpr int kWorkerCount = 10;

// One thread. Static storage; the fields belong to the functions below.
struct ServiceThread
{
    const char *name; // for the log
    ThreadEntry entry;
    void *argument;
    pthread_t handle;
    bool running; // started and not yet joined
    bool ended;   // its entry has returned, or it was cancelled
};

extern ServiceThread gSignalThread;
extern ServiceThread gBusServiceThread;
extern ServiceThread gWorkerThreads[kWorkerCount];
extern ServiceThread gNCThread;
extern ServiceThread gCorruptionThread;

// Whether the service has been told to stop; long work tests it between its
// steps.
bool StopRequested();

// From here on no thread starts. False when it was requested before.
bool RequestStop();

// Waits until a stop is requested. False when it wasn't in the given time, in
// milliseconds or kNoLimit.
inline constexpr int kNoLimit = -1;
bool AwaitStopRequest(int milliseconds);

// Whether a stop was requested more than two seconds ago. What others hold is
// waited for no longer then, by anybody.
bool StopPatienceIsOver();

// Starts a thread with SIGTERM blocked, so that the signal meets `main`.
// attributes may be NULL. Returns pthread_create's result, or ECANCELED when a
// stop has been requested. The log tells when there can't be a thread.
int StartThread(ServiceThread &thread, ThreadEntry entry, void *argument,
                const pthread_attr_t *attributes);

// Cancels the thread if it is running.
void CancelThread(ServiceThread &thread);

// Waits for the thread's end; returns at once when it isn't running. Only for
// `main`.
void JoinThread(ServiceThread &thread);

// pthread_create with SIGTERM blocked in the new thread.
int CreateThread(pthread_t *handle, const pthread_attr_t *attributes,
                 ThreadEntry entry, void *argument);

} // namespace qdb

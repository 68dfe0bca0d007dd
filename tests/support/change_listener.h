// Another process's view of the service: its signals and its telemetry records.
#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qdb::test
{

struct Change
{
    std::string member; // such as "Vexo_qdb_Resource_Added"
    std::string json;
    unsigned long long serial = 0; // of the message, per sender
};

// Subscribed to the service's signals on the process's system bus from the end
// of its constructor on.
class ChangeListener
{
  public:
    ChangeListener();
    ~ChangeListener();
    ChangeListener(const ChangeListener &) = delete;
    ChangeListener &operator=(const ChangeListener &) = delete;

    std::vector<Change> Changes() const;

    // Waits for that many changes in all; what there is by the deadline.
    std::vector<Change> WaitFor(size_t count) const;

    // The changes that this process's service has sent since the last call,
    // told by a last signal of its own. Signals must be enabled.
    std::vector<Change> TakeAll();

    // Those that have come since the last call.
    std::vector<Change> Take();

    // Waits until all that the service has sent so far has come; false when it
    // doesn't. A service that has never sent anything isn't waited for.
    bool Sync();

    void Clear();

  private:
    void Run();
    void AskForEnd(sd_bus *bus);
    static int OnEnd(sd_bus_message *reply, void *listener,
                     sd_bus_error *error);

    mutable std::mutex mutex_;
    std::vector<Change> changes_; // guarded by mutex_
    std::atomic<bool> ready_ = false;
    std::atomic<bool> stop_ = false;
    std::atomic<int> syncsWanted_ = 0;
    std::atomic<int> syncsDone_ = 0;
    int syncsAsked_ = 0; // the thread's own, as is the next
    std::string sender_; // of the last signal
    std::thread thread_;
};

// The telemetry pipe's reader, from the end of its constructor on.
class PipeReader
{
  public:
    explicit PipeReader(const std::string &path);
    ~PipeReader();
    PipeReader(const PipeReader &) = delete;
    PipeReader &operator=(const PipeReader &) = delete;

    // All records that are in the pipe by now, "table|rowid|operation" each;
    // malformed bytes are a record of their own.
    std::vector<std::string> Take();

    // The bytes that are in the pipe, as they are.
    std::string TakeBytes();

    // How much the pipe holds at most.
    void Limit(int bytes);

  private:
    int fd_;
};

} // namespace qdb::test

// Another process's view of the service: its signals and its telemetry records.
#pragma once

#include <systemd/sd-bus.h>

#include <string>
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
// of its constructor on. The bus keeps them until they are asked for. One
// thread.
class ChangeListener
{
  public:
    ChangeListener();
    ~ChangeListener();
    ChangeListener(const ChangeListener &) = delete;
    ChangeListener &operator=(const ChangeListener &) = delete;

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

  private:
    void Read() const;

    sd_bus *bus_ = nullptr;
    mutable std::vector<Change> changes_; // read, and not taken yet
    mutable std::string sender_;          // of the last signal
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

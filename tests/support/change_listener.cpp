#include "tests/support/change_listener.h"

#include "publish/change_signal.h"
#include "tests/support/wait.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <memory>
#include <utility>

namespace qdb::test
{
namespace
{

struct CloseBus
{
    void operator()(sd_bus *bus) const
    {
        sd_bus_flush_close_unref(bus);
    }
};

struct UnrefMessage
{
    void operator()(sd_bus_message *message) const
    {
        sd_bus_message_unref(message);
    }
};
using MessagePtr = std::unique_ptr<sd_bus_message, UnrefMessage>;

constexpr char kInterface[] = "com.vexo.tarnu.qdb.changeeventnotify";
constexpr char kRule[] =
    "type='signal',path='/com/vexo/tarnu/qdb/changeeventnotify',"
    "interface='com.vexo.tarnu.qdb.changeeventnotify'";

} // namespace

ChangeListener::ChangeListener()
    : thread_(
          [this]
          {
              Run();
          })
{
    EXPECT_TRUE(WaitUntil(
        [this]
        {
            return ready_.load();
        }));
}

ChangeListener::~ChangeListener()
{
    stop_ = true;
    thread_.join();
}

void ChangeListener::Run()
{
    sd_bus *opened = nullptr;
    ASSERT_GE(sd_bus_open_system(&opened), 0);
    const std::unique_ptr<sd_bus, CloseBus> bus(opened);
    ASSERT_GE(sd_bus_add_match(bus.get(), nullptr, kRule, nullptr, nullptr), 0);
    ready_ = true;
    while (!stop_)
    {
        sd_bus_message *taken = nullptr;
        const int processed = sd_bus_process(bus.get(), &taken);
        const MessagePtr message(taken);
        if (processed < 0)
        {
            return;
        }
        const char *json = nullptr;
        if (message != nullptr &&
            sd_bus_message_is_signal(message.get(), kInterface, nullptr) > 0 &&
            sd_bus_message_read(message.get(), "s", &json) > 0)
        {
            uint64_t serial = 0;
            sd_bus_message_get_cookie(message.get(), &serial);
            sender_ = sd_bus_message_get_sender(message.get());
            const std::lock_guard<std::mutex> lock(mutex_);
            changes_.push_back(
                {sd_bus_message_get_member(message.get()), json, serial});
        }
        AskForEnd(bus.get());
        if (processed == 0)
        {
            sd_bus_wait(bus.get(), 10000);
        }
    }
}

// The service's answer comes behind all signals that it has sent.
void ChangeListener::AskForEnd(sd_bus *bus)
{
    if (syncsAsked_ == syncsWanted_)
    {
        return;
    }
    syncsAsked_ = syncsWanted_;
    if (sender_.empty())
    {
        syncsDone_ = syncsAsked_;
        return;
    }
    EXPECT_GE(sd_bus_call_method_async(bus, nullptr, sender_.c_str(), "/",
                                       "org.freedesktop.DBus.Peer", "Ping",
                                       OnEnd, this, ""),
              0);
}

int ChangeListener::OnEnd(sd_bus_message *, void *listener, sd_bus_error *)
{
    auto *self = static_cast<ChangeListener *>(listener);
    self->syncsDone_ = self->syncsAsked_;
    return 0;
}

bool ChangeListener::Sync()
{
    const int wanted = ++syncsWanted_;
    return WaitUntil(
        [&]
        {
            return syncsDone_ >= wanted;
        });
}

std::vector<Change> ChangeListener::Changes() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return changes_;
}

std::vector<Change> ChangeListener::WaitFor(size_t count) const
{
    WaitUntil(
        [&]
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            return changes_.size() >= count;
        });
    return Changes();
}

std::vector<Change> ChangeListener::Take()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(changes_, {});
}

std::vector<Change> ChangeListener::TakeAll()
{
    static constexpr char kEnd[] = "end";
    ChangeJsonAdded(kEnd);
    std::vector<Change> changes;
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            changes = Changes();
            return !changes.empty() && changes.back().json == kEnd;
        }));
    Clear();
    if (!changes.empty())
    {
        changes.pop_back();
    }
    return changes;
}

void ChangeListener::Clear()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    changes_.clear();
}

PipeReader::PipeReader(const std::string &path)
    : fd_(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC))
{
    EXPECT_GE(fd_, 0);
    Limit(1 << 20);
}

PipeReader::~PipeReader()
{
    close(fd_);
}

void PipeReader::Limit(int bytes)
{
    EXPECT_GE(fcntl(fd_, F_SETPIPE_SZ, bytes), bytes);
}

std::string PipeReader::TakeBytes()
{
    std::string bytes;
    char block[65536];
    for (ssize_t n = read(fd_, block, sizeof(block)); n > 0;
         n = read(fd_, block, sizeof(block)))
    {
        bytes.append(block, static_cast<size_t>(n));
    }
    return bytes;
}

std::vector<std::string> PipeReader::Take()
{
    const std::string bytes = TakeBytes();
    static const std::string kHead = "||DMLiveObjectDatabase.db|";
    std::vector<std::string> records;
    size_t at = 0;
    while (at < bytes.size())
    {
        const size_t end = bytes.find("||", at + kHead.size());
        if (bytes.compare(at, kHead.size(), kHead) != 0 ||
            end == std::string::npos)
        {
            records.push_back(bytes.substr(at));
            break;
        }
        records.push_back(
            bytes.substr(at + kHead.size(), end - at - kHead.size()));
        at = end + 2;
    }
    return records;
}

} // namespace qdb::test

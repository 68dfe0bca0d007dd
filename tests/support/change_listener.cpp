#include "tests/support/change_listener.h"

#include "publish/change_signal.h"
#include "tests/support/wait.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace qdb::test
{
namespace
{

constexpr char kInterface[] = "com.vexo.tarnu.qdb.changeeventnotify";
constexpr char kRule[] =
    "type='signal',path='/com/vexo/tarnu/qdb/changeeventnotify',"
    "interface='com.vexo.tarnu.qdb.changeeventnotify'";

} // namespace

ChangeListener::ChangeListener()
{
    EXPECT_GE(sd_bus_open_system(&bus_), 0);
    EXPECT_GE(sd_bus_add_match(bus_, nullptr, kRule, nullptr, nullptr), 0);
}

ChangeListener::~ChangeListener()
{
    sd_bus_flush_close_unref(bus_);
}

// Takes what has come from the bus.
void ChangeListener::Read() const
{
    sd_bus_message *message = nullptr;
    while (sd_bus_process(bus_, &message) > 0)
    {
        const char *json = nullptr;
        if (message != nullptr &&
            sd_bus_message_is_signal(message, kInterface, nullptr) > 0 &&
            sd_bus_message_read(message, "s", &json) > 0)
        {
            uint64_t serial = 0;
            sd_bus_message_get_cookie(message, &serial);
            sender_ = sd_bus_message_get_sender(message);
            changes_.push_back(
                {sd_bus_message_get_member(message), json, serial});
        }
        message = sd_bus_message_unref(message);
    }
}

// The service's answer comes behind all signals that it has sent, and so does
// the bus's that there is no service any more.
bool ChangeListener::Sync()
{
    Read();
    const int result = sender_.empty()
                           ? 0
                           : sd_bus_call_method(bus_, sender_.c_str(), "/",
                                                "org.freedesktop.DBus.Peer",
                                                "Ping", nullptr, nullptr, "");
    Read();
    return result != -ETIMEDOUT;
}

std::vector<Change> ChangeListener::WaitFor(size_t count) const
{
    WaitUntil(
        [&]
        {
            Read();
            return changes_.size() >= count;
        });
    return changes_;
}

std::vector<Change> ChangeListener::Take()
{
    Read();
    return std::exchange(changes_, {});
}

std::vector<Change> ChangeListener::TakeAll()
{
    static constexpr char kEnd[] = "end";
    ChangeJsonAdded(kEnd);
    EXPECT_TRUE(WaitUntil(
        [&]
        {
            Read();
            return !changes_.empty() && changes_.back().json == kEnd;
        }));
    if (!changes_.empty())
    {
        changes_.pop_back();
    }
    return std::exchange(changes_, {});
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
    static const std::string kHead = "||DMLiveObjectDatabase.db|";
    const std::string bytes = TakeBytes();
    std::vector<std::string> records;
    for (size_t at = 0, end = 0; at < bytes.size(); at = end + 2)
    {
        end = bytes.find("||", at + kHead.size());
        if (bytes.compare(at, kHead.size(), kHead) != 0 ||
            end == std::string::npos)
        {
            records.push_back(bytes.substr(at));
            break;
        }
        at += kHead.size();
        records.push_back(bytes.substr(at, end - at));
    }
    return records;
}

} // namespace qdb::test

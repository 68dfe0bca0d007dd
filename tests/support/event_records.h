// Event records, well-formed and otherwise, and a way to act in the middle of
// their dispatch.
#pragma once

#include "core/state.h"
#include "events/listener.h"
#include "queues/event_queue.h"
#include "queues/event_record.h"
#include "standin/standin.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace qdb::test
{

using Bytes = std::vector<uint8_t>;
using Words = std::vector<uint32_t>;

inline constexpr uint8_t kFlags = 0xA5; // of every record

// A record of words and a text behind the header. evtSize is its real size
// unless given.
inline Bytes Record(uint16_t type, const Words &words,
                    const std::string &text = "", size_t claimed = SIZE_MAX)
{
    std::string bytes(sizeof(DataEventHeader) + words.size() * 4, '\0');
    if (!words.empty())
    {
        std::memcpy(bytes.data() + sizeof(DataEventHeader), words.data(),
                    words.size() * 4);
    }
    bytes += text;
    DataEventHeader header = {};
    header.evtSize = static_cast<uint32_t>(std::min(claimed, bytes.size()));
    header.evtType = type;
    header.evtFlags = kFlags;
    std::memcpy(bytes.data(), &header, sizeof(header));
    return {bytes.begin(), bytes.end()};
}

// An object list.
inline Bytes List(uint16_t type, const Words &oids)
{
    Words words = {static_cast<uint32_t>(oids.size())};
    words.insert(words.end(), oids.begin(), oids.end());
    return Record(type, words);
}

// An attribute's record, as they come by the bus.
inline Bytes BusRecord(uint16_t kind, uint32_t oid, const std::string &path,
                       const std::string &interfaceName)
{
    const auto interfaceAt = static_cast<uint32_t>(32 + path.size() + 1);
    return Record(65533, {kind, oid, 32, interfaceAt},
                  path + '\0' + interfaceName + '\0');
}

inline const DataEventHeader *EventOf(const Bytes &record)
{
    return reinterpret_cast<const DataEventHeader *>(record.data());
}

inline void GiveToListener(Bytes record)
{
    EXPECT_EQ(
        QDVEventListener(reinterpret_cast<DataEventHeader *>(record.data())),
        0);
}

// Puts a copy on the queue.
inline void Enqueue(const Bytes &record)
{
    auto *copy = static_cast<char *>(std::malloc(record.size()));
    std::ranges::copy(record, copy);
    QdbenQueue(gQdbEventQueue, reinterpret_cast<DataEventHeader *>(copy));
}

// Takes all records off the queue, which has been posted once for each.
inline std::vector<Bytes> TakeQueued()
{
    std::vector<Bytes> records;
    int posts = -1;
    sem_getvalue(&gQdbEventSem, &posts);
    EXPECT_EQ(posts, QdbEventQSize);
    while (QdbEventQSize > 0)
    {
        const EventNodePtr node(QdbdeQueue(gQdbEventQueue));
        const auto *bytes = reinterpret_cast<const uint8_t *>(node->data);
        records.emplace_back(bytes, bytes + node->data->evtSize);
    }
    return records;
}

// While it lives, `action` runs whenever a line that contains the text is
// logged, on the thread that logs it, with the number of such lines so far.
// Other lines are lost. One at a time.
class LineHook
{
  public:
    LineHook(const std::string &text, const std::function<void(int)> &action)
        : text_(text), action_(action)
    {
        hook_ = this;
        standin::SetLog(6, OnLine);
    }
    ~LineHook()
    {
        standin::SetLog(0, nullptr);
        hook_ = nullptr;
    }
    LineHook(const LineHook &) = delete;
    LineHook &operator=(const LineHook &) = delete;

    int Count() const
    {
        return count_;
    }

  private:
    static void OnLine(int /*level*/, const char *line)
    {
        if (std::strstr(line, hook_->text_.c_str()) != nullptr)
        {
            hook_->action_(++hook_->count_);
        }
    }

    inline static LineHook *hook_ = nullptr;

    std::string text_;
    std::function<void(int)> action_;
    int count_ = 0; // the lines of one thread
};

// While it lives, an object vanishes at one such line and is mended at another;
// 0: at none.
class FateHook : public LineHook
{
  public:
    FateHook(const std::string &line, int goneAt,
             const std::function<void()> &remove, int mendedAt,
             const std::function<void()> &mend)
        : LineHook(line,
                   [=](int count)
                   {
                       if (count == goneAt)
                       {
                           remove();
                       }
                       if (count == mendedAt)
                       {
                           mend();
                       }
                   })
    {
    }
};

} // namespace qdb::test

// What tests of the reloads share: objects that come and go in silence, and the
// handlers that a reload has called.
#pragma once

#include "tests/support/event_records.h"
#include "tests/support/handler_fixture.h"
#include "tests/support/no_memory.h"

namespace qdb::test
{

inline std::string Text(uint32_t number)
{
    return std::to_string(number);
}

inline void MakeRow(const Bytes &object)
{
    EXPECT_EQ(Create(object), 0);
}

inline void Put(const Bytes &object, const Words &parents = {})
{
    EXPECT_EQ(standin::PutRawObject(object, parents), "");
}

inline void Remove(uint32_t oid)
{
    EXPECT_EQ(standin::DeleteObjects(Words{oid}, false), "");
}

// An object whose text at the offset can't be read as it stands.
inline Bytes Broken(Bytes object, size_t wordAt)
{
    object[wordAt + 1] = 0x20;
    return object;
}

// While it lives, allocations of this thread fail from a line on.
struct OutOfMemoryAt : LineHook
{
    explicit OutOfMemoryAt(const std::string &line)
        : LineHook(line,
                   [](int)
                   {
                       tNoMemory = true;
                   })
    {
    }
    ~OutOfMemoryAt()
    {
        tNoMemory = false;
    }
};

class NcReload : public Handler
{
  protected:
    void Clear()
    {
        standin::Reset();
        mirror_.Rows("DELETE FROM ActiveOIDMapping");
        ForgetStatements();
        Restart();
    }

    // The handlers that have run since Restart(), such as "Create 7".
    static Lines Calls()
    {
        static const std::regex kEntry(
            "\\[\\w+\\] (Create|Refresh|Delete)Obj_\\w+ Entry for OID: (-?\\d+)"
            "\n?");
        Lines calls;
        for (const std::string &line : LogLines())
        {
            std::smatch match;
            if (std::regex_match(line, match, kEntry))
            {
                calls.push_back(match[1].str() + " " + match[2].str());
            }
        }
        return calls;
    }
};

} // namespace qdb::test

// Objects that come, change and go together with their events, and what the
// database makes of them.
#pragma once

#include "tests/support/audited.h"
#include "tests/support/event_records.h"
#include "tests/support/wait.h"

#include <set>

namespace qdb::test
{

inline void PutChild(uint16_t type, uint32_t oid, uint32_t parent,
                     const std::string &values = "{}", bool announce = true)
{
    const JsonPtr parsed(json_loads(values.c_str(), 0, nullptr));
    const standin::ObjectSpec spec = {
        .type = type, .oid = oid, .parents = {parent}, .values = parsed.get()};
    EXPECT_EQ(standin::CreateObject(spec, announce), "");
}

inline void SetObject(uint32_t oid, const std::string &values,
                      bool announce = true)
{
    const JsonPtr parsed(json_loads(values.c_str(), 0, nullptr));
    EXPECT_EQ(standin::SetObject(oid, parsed.get(), announce), "");
}

inline void DeleteObjects(const Words &oids)
{
    EXPECT_EQ(standin::DeleteObjects(oids), "");
}

// Everything that the database and the two managers disagree on, but for
// these objects.
inline Lines Unequal(const audit::Snapshot &snapshot,
                     const std::set<uint32_t> &besides = {})
{
    Lines lines;
    for (const audit::Difference &difference :
         Compare(Managers(), snapshot).differences)
    {
        if (!besides.contains(static_cast<uint32_t>(difference.oid)))
        {
            lines.push_back(Print(difference));
        }
    }
    return lines;
}

inline audit::Snapshot SnapshotOf(const Mirror &mirror)
{
    const ConnectionPtr database = OpenDatabase(mirror.Root().Database());
    sqlite3_busy_timeout(database.get(), kDeadlineMs);
    return audit::ReadSnapshot(database.get());
}

} // namespace qdb::test

// Objects that come, change and go together with their events, and what the
// database makes of them.
#pragma once

#include "core/json.h"
#include "standin/commands.h"
#include "tests/support/db_fixture.h"
#include "tests/support/event_records.h"
#include "tests/support/wait.h"
#include "tools/audit/audit.h"

#include <memory>
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
    const JsonPtr request(json_pack("{s:s}", "op", "dump"));
    const audit::Content content =
        audit::ParseContent(standin::Execute(request.get()).get());
    Lines lines;
    for (const audit::Difference &difference :
         Compare(content, snapshot).differences)
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
    sqlite3 *opened = nullptr;
    EXPECT_EQ(sqlite3_open(mirror.Root().Database().c_str(), &opened),
              SQLITE_OK);
    const std::unique_ptr<sqlite3, int (*)(sqlite3 *)> database(opened,
                                                                sqlite3_close);
    sqlite3_busy_timeout(opened, kDeadlineMs);
    return audit::ReadSnapshot(opened);
}

} // namespace qdb::test

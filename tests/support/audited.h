// The auditor at work in the test's own process, on both managers of the
// stand-in.
#pragma once

#include "core/json.h"
#include "standin/commands.h"
#include "tests/support/db_fixture.h"
#include "tools/audit/audit.h"

namespace qdb::test
{

// All that the database should mirror.
inline audit::Content Managers()
{
    const JsonPtr request(json_pack("{s:s}", "op", "dump"));
    return audit::ParseContent(standin::Execute(request.get()).get());
}

// What an audit prints.
inline Lines Printed(const audit::Report &report)
{
    Lines lines;
    for (const auto &object : report.unstorable)
    {
        lines.push_back(Print(object));
    }
    for (const auto &difference : report.differences)
    {
        lines.push_back(Print(difference));
    }
    lines.push_back(Summary(report));
    return lines;
}

// An audit of a database's file.
inline audit::Report Audit(const std::string &path,
                           const audit::Content &content = Managers())
{
    return Compare(content, audit::ReadSnapshot(OpenDatabase(path).get()));
}

} // namespace qdb::test

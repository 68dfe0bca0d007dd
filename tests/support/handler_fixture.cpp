#include "tests/support/handler_fixture.h"

#include <regex>

namespace qdb::test
{

Lines Handler::Announced()
{
    static const std::regex kTime(R"("SingleRecordEtag": "\d{10}")");
    Lines lines;
    for (const auto &[member, json, serial] : listener_.TakeAll())
    {
        lines.push_back(
            member.substr(kMemberPrefix.size()) + " " +
            std::regex_replace(json, kTime, R"("SingleRecordEtag": "T")"));
    }
    return lines;
}

Lines Handler::Kinds()
{
    Lines kinds = Announced();
    for (std::string &kind : kinds)
    {
        kind.erase(kind.find(' '));
    }
    return kinds;
}

Lines Handler::Calls()
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

} // namespace qdb::test

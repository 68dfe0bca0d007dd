// What an audit says, and what it says only after a second look.
#include "tools/audit/audit.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace qdb::audit
{
namespace
{

const char *NameOf(Kind kind)
{
    switch (kind)
    {
    case Kind::MissingMapping:
        return "missing mapping";
    case Kind::ExtraMapping:
        return "extra mapping";
    case Kind::MappingType:
        return "mapping type";
    case Kind::MissingRow:
        return "missing row";
    case Kind::ExtraRow:
        return "extra row";
    case Kind::Repeated:
        return "repeated row";
    case Kind::Column:
        return "column";
    case Kind::CreationColumn:
        return "creation column";
    case Kind::MissingElement:
        return "missing element";
    case Kind::ExtraElement:
        return "extra element";
    case Kind::Element:
        return "element";
    case Kind::MissingLink:
        return "missing link";
    case Kind::ExtraLink:
        return "extra link";
    }
    return "";
}

// "0x80000001 (0xE1)"; an OID that no object can have is shown as it is stored.
std::string Head(int64_t oid, uint32_t type)
{
    char text[64];
    if (oid == static_cast<int32_t>(oid))
    {
        snprintf(text, sizeof(text), "0x%08X (0x%X) ",
                 static_cast<unsigned>(static_cast<uint32_t>(oid)), type);
    }
    else
    {
        snprintf(text, sizeof(text), "%lld (0x%X) ",
                 static_cast<long long>(oid), type);
    }
    return text;
}

std::string Place(const Difference &difference)
{
    std::string place = difference.table;
    if (!difference.column.empty())
    {
        place += '.' + difference.column;
    }
    if (difference.index >= 0)
    {
        place += '[' + std::to_string(difference.index) + ']';
    }
    if (!difference.field.empty())
    {
        place += '.' + difference.field;
    }
    return place;
}

// The difference without its values. Links are told apart by their parent.
Difference PlaceOnly(Difference difference)
{
    if (difference.kind != Kind::MissingLink &&
        difference.kind != Kind::ExtraLink)
    {
        difference.expected.clear();
        difference.found.clear();
    }
    return difference;
}

// Leaves the differences whose place is among `lasting`, which becomes the
// places of those left.
void KeepLasting(std::set<Difference> *pLasting,
                 std::vector<Difference> *pDifferences)
{
    std::erase_if(*pDifferences,
                  [&](const Difference &difference)
                  {
                      return !pLasting->contains(PlaceOnly(difference));
                  });
    pLasting->clear();
    for (const Difference &difference : *pDifferences)
    {
        pLasting->insert(PlaceOnly(difference));
    }
}

} // namespace

Report Looks(int count, const std::function<Content()> &fetch,
             sqlite3 *database, const std::function<void(int)> &pause)
{
    std::set<Difference> lasting;
    for (int look = 1;; ++look)
    {
        const Content content = fetch();
        Report report = Compare(content, ReadSnapshot(database));
        if (look == 1)
        {
            for (const Difference &difference : report.differences)
            {
                lasting.insert(PlaceOnly(difference));
            }
        }
        KeepLasting(&lasting, &report.differences);
        if (lasting.empty() || look >= count)
        {
            return report;
        }
        pause(look);
    }
}

std::string Print(const Difference &difference)
{
    return Head(difference.oid, difference.type) + NameOf(difference.kind) +
           ' ' + Place(difference) + ": expected " + difference.expected +
           ", found " + difference.found;
}

std::string Print(const Unstorable &object)
{
    return Head(object.oid, object.type) + "not storable " + object.table +
           '.' + object.column;
}

std::string Summary(const Report &report)
{
    const size_t count = report.differences.size();
    std::string summary =
        std::to_string(count) +
        (count == 1 ? " difference in " : " differences in ") +
        std::to_string(report.compared) + " objects";
    if (!report.unstorable.empty())
    {
        summary +=
            ", " + std::to_string(report.unstorable.size()) + " not storable";
    }
    return summary;
}

} // namespace qdb::audit

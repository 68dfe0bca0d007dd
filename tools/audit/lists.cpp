#include "tools/audit/lists.h"

#include "objects/schema/table.h"

#include <vector>

namespace qdb::audit
{
namespace
{

using Texts = std::vector<std::string>;

uint64_t CountAt(const ObjectBytes &bytes, uint64_t offset, size_t width)
{
    return bytes.Unsigned(offset, width).value_or(0);
}

// Cells of one size with a NUL of their own behind each.
Texts Cells(const ObjectBytes &bytes, uint64_t offset, size_t sizeAt)
{
    const uint64_t count = CountAt(bytes, 0x46, 2);
    const uint64_t size = CountAt(bytes, sizeAt, 2);
    Texts cells;
    while (cells.size() < count && bytes.Holds(offset, size))
    {
        cells.push_back(bytes.Text(offset, size).value_or(""));
        offset += size + 1;
    }
    return cells;
}

// Texts one behind the other, each with its NUL.
Texts Sequence(const ObjectBytes &bytes, uint64_t offset, size_t countAt)
{
    const uint64_t count = CountAt(bytes, kBodyBase + countAt, 4);
    Texts texts;
    offset += kBodyBase;
    while (texts.size() < count)
    {
        const auto text = bytes.EndedText(offset);
        if (!text)
        {
            break;
        }
        offset += text->size() + 1;
        texts.push_back(*text);
    }
    return texts;
}

std::string Joined(const Texts &texts)
{
    std::string joined;
    for (const std::string &text : texts)
    {
        joined += (&text == texts.data() ? "" : "#$#") + text;
    }
    return joined;
}

// The texts that hold the family's marker, from the second character behind it
// on. A marker with nothing behind it makes no address.
Texts Family(const Texts &texts, bool isIPv4)
{
    Texts addresses;
    for (const std::string &text : texts)
    {
        const size_t four = text.find("/4");
        const bool hasFour = four != std::string::npos;
        const size_t at = hasFour ? four : text.find("/6");
        if (hasFour == isIPv4 && at != std::string::npos &&
            at + 3 <= text.size())
        {
            addresses.push_back(text.substr(at + 3));
        }
    }
    return addresses;
}

// The IPv4 addresses, then the others behind a mark of their own.
std::string Sorted(const Texts &texts)
{
    const Texts others = Family(texts, false);
    return Joined(Family(texts, true)) +
           (others.empty() ? "" : "@@@" + Joined(others));
}

} // namespace

std::optional<std::string> ListText(const ObjectBytes &bytes, Join join,
                                    uint64_t offset)
{
    Texts texts;
    bool isAddresses = false;
    switch (join)
    {
    case Join::None:
        break;
    case Join::PossibleValues:
        texts = Cells(bytes, offset, 0x48);
        break;
    case Join::DisplayValues:
        texts = Cells(bytes, offset, 0x4A);
        break;
    case Join::PhysicalFqdds:
        texts = Sequence(bytes, offset, 423);
        break;
    case Join::Gateways:
        texts = Sequence(bytes, offset, 447);
        isAddresses = true;
        break;
    case Join::DnsServers:
        texts = Sequence(bytes, offset, 455);
        isAddresses = true;
        break;
    }
    if (texts.empty())
    {
        return std::nullopt;
    }
    return isAddresses ? Sorted(texts) : Joined(texts);
}

} // namespace qdb::audit

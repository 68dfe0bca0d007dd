#include "objects/joiners.h"

#include "core/log.h"
#include "objects/schema/table.h"

#include <new>
#include <vector>

namespace qdb
{
namespace
{

constexpr std::string_view kSeparator = "#$#";
constexpr std::string_view kIPv6Lead = "@@@";

constexpr size_t kEnumCountAt = 0x46;
constexpr size_t kEnumValueSizeAt = 0x48;
constexpr size_t kEnumDisplaySizeAt = 0x4A;

constexpr size_t kFqddCountAt = kBodyBase + 423;
constexpr size_t kGatewayCountAt = kBodyBase + 447;
constexpr size_t kDnsCountAt = kBodyBase + 455;

// NUL-terminated texts one behind the other, at most `count` of them.
std::vector<std::string_view> WalkTexts(const ObjectView &object,
                                        uint32_t listOffset, uint32_t count)
{
    std::vector<std::string_view> texts;
    uint64_t offset = uint64_t{kBodyBase} + listOffset;
    while (texts.size() < count)
    {
        const auto text = object.TextInside(offset);
        if (!text)
        {
            break;
        }
        texts.push_back(*text);
        offset += text->size() + 1;
    }
    return texts;
}

// Joins texts; nothing when there are none.
std::optional<std::string> JoinTexts(const std::vector<std::string_view> &texts)
{
    std::optional<std::string> joined;
    for (const std::string_view text : texts)
    {
        if (joined)
        {
            *joined += kSeparator;
        }
        else
        {
            joined.emplace();
        }
        *joined += text;
    }
    return joined;
}

// Fixed cells of size + 1 bytes, one behind the other. A cell is a text that
// ends at its NUL or at its size.
std::optional<std::string> JoinCells(const ObjectView &object,
                                     uint32_t listOffset, size_t sizeAt)
{
    const size_t count = object.Read<uint16_t>(kEnumCountAt).value_or(0);
    const size_t size = object.Read<uint16_t>(sizeAt).value_or(0);
    std::vector<std::string_view> cells;
    while (cells.size() < count)
    {
        const auto cell = object.Bytes(
            listOffset + uint64_t{cells.size()} * (size + 1), size);
        if (!cell)
        {
            break;
        }
        cells.push_back(cell->substr(0, cell->find('\0')));
    }
    return JoinTexts(cells);
}

// The texts of one address list, by family.
struct Addresses
{
    std::vector<std::string_view> ipv4;
    std::vector<std::string_view> ipv6;
};

// Files an address by the marker in front of it: the marker, one more
// character, then the address. False when there is no marker or nothing behind
// it.
bool FileAddress(std::string_view text, Addresses &addresses)
{
    const size_t ipv4At = text.find("/4");
    const bool isIPv4 = ipv4At != std::string_view::npos;
    const size_t at = isIPv4 ? ipv4At : text.find("/6");
    constexpr size_t kMarkerSize = 3;
    if (at == std::string_view::npos || text.size() - at < kMarkerSize)
    {
        return false;
    }
    (isIPv4 ? addresses.ipv4 : addresses.ipv6)
        .push_back(text.substr(at + kMarkerSize));
    return true;
}

// IPv4 addresses first, then the IPv6 ones behind a lead of their own.
std::optional<std::string>
JoinAddresses(const std::vector<std::string_view> &texts, const char *what)
{
    if (texts.empty())
    {
        return std::nullopt;
    }
    Addresses addresses;
    for (const std::string_view text : texts)
    {
        if (!FileAddress(text, addresses))
        {
            QDB_LOG(kLogTrace, "%s: Invalid %s", what);
        }
    }
    std::string joined = JoinTexts(addresses.ipv4).value_or("");
    if (const auto ipv6 = JoinTexts(addresses.ipv6))
    {
        joined += kIPv6Lead;
        joined += *ipv6;
    }
    return joined;
}

// Bytes of all texts but the first, each with its NUL.
int LengthSum(const std::vector<std::string_view> &texts)
{
    size_t sum = 0;
    for (size_t i = 1; i < texts.size(); ++i)
    {
        sum += texts[i].size() + 1;
    }
    return static_cast<int>(sum);
}

std::optional<std::string> JoinDnsServers(const ObjectView &object,
                                          uint32_t listOffset)
{
    const auto texts = WalkTexts(
        object, listOffset, object.Read<uint32_t>(kDnsCountAt).value_or(0));
    QDB_LOG(kLogTrace, "%s: DNSServerStr len=%d", LengthSum(texts));
    return JoinAddresses(texts, "DNSServerStr");
}

std::optional<std::string> JoinGateways(const ObjectView &object,
                                        uint32_t listOffset)
{
    const auto texts = WalkTexts(
        object, listOffset, object.Read<uint32_t>(kGatewayCountAt).value_or(0));
    QDB_LOG(kLogTrace, "%s: len = %d", LengthSum(texts));
    return JoinAddresses(texts, "GatewayAddress");
}

const char *TextOrEmpty(const std::optional<std::string> &text)
{
    return text ? text->c_str() : "";
}

std::optional<std::string> JoinUnguarded(const ObjectView &object, Join join,
                                         uint32_t listOffset)
{
    std::optional<std::string> joined;
    switch (join)
    {
    case Join::None:
        break;
    case Join::PossibleValues:
        joined = JoinCells(object, listOffset, kEnumValueSizeAt);
        QDB_LOG(kLogTrace, "%s: PossibleValStr - %s", TextOrEmpty(joined));
        break;
    case Join::DisplayValues:
        joined = JoinCells(object, listOffset, kEnumDisplaySizeAt);
        QDB_LOG(kLogTrace, "%s: DisplayValStr - %s", TextOrEmpty(joined));
        break;
    case Join::DnsServers:
        joined = JoinDnsServers(object, listOffset);
        break;
    case Join::Gateways:
        joined = JoinGateways(object, listOffset);
        break;
    case Join::PhysicalFqdds:
        joined = JoinTexts(
            WalkTexts(object, listOffset,
                      object.Read<uint32_t>(kFqddCountAt).value_or(0)));
        break;
    }
    return joined;
}

const char *NameInLog(Join join)
{
    switch (join)
    {
    case Join::DnsServers:
        return "DNSServerStr";
    case Join::Gateways:
        return "GatewayAddress";
    case Join::PhysicalFqdds:
        return "fqdd_arr";
    default:
        return "enum values";
    }
}

} // namespace

std::optional<std::string> JoinList(const ObjectView &object, Join join,
                                    uint32_t listOffset)
{
    // Want of memory costs the column, not the row.
    try
    {
        return JoinUnguarded(object, join, listOffset);
    }
    catch (const std::bad_alloc &)
    {
        QDB_LOG(kLogTrace, "%s: %s memory allocation error", NameInLog(join));
        return std::nullopt;
    }
}

} // namespace qdb

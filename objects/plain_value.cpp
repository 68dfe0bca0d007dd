#include "objects/plain_value.h"

#include <array>
#include <cstdint>

namespace qdb
{
namespace
{

// Longer integers might not fit in 64 bits.
constexpr int kMaxDigits = 18;

// The bytes of a string that stand for themselves, whatever follows.
constexpr std::array<bool, 256> kOrdinary = []
{
    std::array<bool, 256> ordinary = {};
    for (size_t byte = 0x20; byte < 0x80; ++byte)
    {
        ordinary[byte] = byte != '"' && byte != '\\';
    }
    return ordinary;
}();

constexpr bool IsDigit(char character)
{
    return character >= '0' && character <= '9';
}

// Each of the following returns the end of what begins at `at`, which is before
// `end`, or NULL.

const char *SkipEscape(const char *at, const char *end)
{
    constexpr std::string_view kEscapes = "\"\\bfnrt";
    ++at;
    return at != end && kEscapes.find(*at) != kEscapes.npos ? at + 1 : nullptr;
}

// A UTF-8 sequence of several bytes: none that is longer than need be, and no
// surrogate.
const char *SkipSequence(const char *at, const char *end)
{
    constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    const auto lead = static_cast<uint8_t>(*at);
    const int length = lead < 0xC0 || lead >= 0xF8 ? 0
                       : lead < 0xE0               ? 2
                       : lead < 0xF0               ? 3
                                                   : 4;
    if (length == 0 || end - at < length)
    {
        return nullptr;
    }
    uint32_t character = lead & (0x7Fu >> length);
    for (int i = 1; i < length; ++i)
    {
        const auto byte = static_cast<uint8_t>(at[i]);
        if ((byte & 0xC0) != 0x80)
        {
            return nullptr;
        }
        character = character << 6 | (byte & 0x3Fu);
    }
    const bool isSurrogate = character >= 0xD800 && character < 0xE000;
    return character < kLeast[length] || isSurrogate || character > 0x10FFFF
               ? nullptr
               : at + length;
}

const char *SkipString(const char *at, const char *end)
{
    ++at;
    while (at != nullptr && at != end)
    {
        if (kOrdinary[static_cast<uint8_t>(*at)])
        {
            ++at;
        }
        else if (*at == '"')
        {
            return at + 1;
        }
        else
        {
            // Raw control characters begin no sequence.
            at = *at == '\\' ? SkipEscape(at, end) : SkipSequence(at, end);
        }
    }
    return nullptr;
}

const char *SkipInteger(const char *at, const char *end)
{
    if (*at == '0')
    {
        return at + 1;
    }
    const char *first = *at == '-' ? at + 1 : at;
    const char *last = first;
    while (last != end && IsDigit(*last))
    {
        ++last;
    }
    return last == first || *first == '0' || last - first > kMaxDigits ? nullptr
                                                                       : last;
}

} // namespace

size_t PlainValueSize(std::string_view text)
{
    constexpr std::string_view kNull = "null";
    if (text.starts_with('n'))
    {
        return text.starts_with(kNull) ? kNull.size() : 0;
    }
    if (text.empty())
    {
        return 0;
    }
    const char *begin = text.data();
    const char *end = begin + text.size();
    const char *last =
        *begin == '"' ? SkipString(begin, end) : SkipInteger(begin, end);
    return last == nullptr ? 0 : static_cast<size_t>(last - begin);
}

bool AppendPlainObject(std::string_view text, std::string *pTo)
{
    const size_t sizeBefore = pTo->size();
    std::string_view rest = text;
    std::string_view separator = "{";
    do
    {
        const bool isMember = rest.starts_with(separator.front());
        const size_t key = isMember && rest.substr(1).starts_with('"')
                               ? 1 + PlainValueSize(rest.substr(1))
                               : rest.size();
        const std::string_view behindKey = rest.substr(key);
        const size_t value = behindKey.starts_with(':')
                                 ? PlainValueSize(behindKey.substr(1))
                                 : 0;
        if (value == 0)
        {
            pTo->resize(sizeBefore);
            return false;
        }
        pTo->append(separator).append(rest, 1, key - 1).append(": ");
        pTo->append(behindKey, 1, value);
        rest = behindKey.substr(1 + value);
        separator = ", ";
    } while (rest != "}");
    pTo->append(rest);
    return true;
}

} // namespace qdb

// Texts and values for the lines for people.
#include "tools/watch/text.h"

#include <array>
#include <charconv>
#include <cmath>
#include <limits>

namespace qdb::watch
{
namespace
{

constexpr size_t kLongestValue = 100;

// The shortest decimal that names the value. Most reals are 32-bit floats
// widened, which would show more digits than they have.
std::string RealText(double value)
{
    std::array<char, 32> buffer;
    char *const end = buffer.data() + buffer.size();
    const bool fits = std::abs(value) <= std::numeric_limits<float>::max();
    const float narrow = fits ? static_cast<float>(value) : 0;
    const auto result = fits && static_cast<double>(narrow) == value
                            ? std::to_chars(buffer.data(), end, narrow)
                            : std::to_chars(buffer.data(), end, value);
    return {buffer.data(), result.ptr};
}

} // namespace

std::string Printable(std::string_view text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i)
    {
        const auto byte = static_cast<unsigned char>(text[i]);
        const auto next =
            static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        const bool wide = byte == 0xC2 && next >= 0x80 && next < 0xA0;
        if (byte >= 0x20 && byte != 0x7F && !wide)
        {
            out += text[i];
            continue;
        }
        constexpr const char *kDigits = "0123456789abcdef";
        const unsigned character = wide ? next : byte;
        out += "\\u00";
        out += kDigits[character >> 4];
        out += kDigits[character & 15];
        i += wide ? 1 : 0;
    }
    return out;
}

std::string Shortened(std::string text)
{
    if (text.size() > kLongestValue)
    {
        size_t end = kLongestValue;
        while (end > 0 &&
               (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
        {
            --end;
        }
        text.resize(end);
        text += "...";
    }
    return text;
}

std::string Dump(const json_t *value, size_t flags)
{
    const JsonText text(json_dumps(value, flags | JSON_ENCODE_ANY));
    return text ? text.get() : "?";
}

std::string ValueText(const json_t *value)
{
    return Shortened(json_is_real(value)
                         ? RealText(json_real_value(value))
                         : Printable(Dump(value, JSON_COMPACT)));
}

} // namespace qdb::watch

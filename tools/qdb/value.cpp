// Jansson says what is UTF-8, and what is JSON; the rest is about people.
#include "tools/qdb/value.h"

#include <array>
#include <charconv>
#include <cmath>
#include <limits>

namespace qdb::tool
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

constexpr const char *kReplacement = "\xEF\xBF\xBD"; // U+FFFD

// How many bytes of a character the text begins with; 0 if it is none.
size_t CharacterSize(std::string_view text)
{
    constexpr size_t kLongest = 4;
    for (size_t size = 1; size <= kLongest && size <= text.size(); ++size)
    {
        if (JsonPtr(json_stringn(text.data(), size)))
        {
            return size;
        }
    }
    return 0;
}

std::string Dump(const json_t *value, size_t flags)
{
    const JsonText text(json_dumps(value, flags | JSON_ENCODE_ANY));
    return text ? text.get() : "?";
}

} // namespace

JsonPtr TextValue(std::string_view text)
{
    if (json_t *whole = json_stringn(text.data(), text.size()))
    {
        return JsonPtr(whole);
    }
    std::string repaired;
    while (!text.empty())
    {
        const size_t size = CharacterSize(text);
        repaired += size == 0 ? kReplacement : text.substr(0, size);
        text.remove_prefix(size == 0 ? 1 : size);
    }
    return JsonPtr(json_stringn(repaired.data(), repaired.size()));
}

JsonPtr RealValue(double value)
{
    return JsonPtr(std::isfinite(value) ? json_real(value) : json_null());
}

JsonPtr ColumnValue(const qdb_row *row, size_t column)
{
    const char *text = qdb_row_text(row, column);
    switch (qdb_row_type(row, column))
    {
    case QDB_INTEGER:
        return JsonPtr(json_integer(qdb_row_integer(row, column)));
    case QDB_REAL:
        return RealValue(qdb_row_real(row, column));
    case QDB_TEXT:
        return TextValue(text);
    case QDB_JSON:
        if (json_t *elements = json_loads(text, JSON_DECODE_ANY, nullptr))
        {
            return JsonPtr(elements);
        }
        return TextValue(text);
    default:
        return JsonPtr(json_null());
    }
}

JsonPtr RowValue(const qdb_row *row)
{
    JsonPtr value(json_object());
    for (size_t i = 0; i < qdb_row_count(row); ++i)
    {
        json_object_set_new(value.get(), qdb_row_name(row, i),
                            ColumnValue(row, i).release());
    }
    return value;
}

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

std::string JsonLine(const json_t *value)
{
    return Printable(Dump(value, 0));
}

std::string ValueText(const json_t *value)
{
    return Shortened(json_is_real(value)
                         ? RealText(json_real_value(value))
                         : Printable(Dump(value, JSON_COMPACT)));
}

std::string PlainText(const json_t *value)
{
    switch (json_typeof(value))
    {
    case JSON_STRING:
        return {json_string_value(value), json_string_length(value)};
    case JSON_REAL:
        return RealText(json_real_value(value));
    case JSON_NULL:
        return "NULL";
    default:
        return Dump(value, JSON_COMPACT);
    }
}

} // namespace qdb::tool

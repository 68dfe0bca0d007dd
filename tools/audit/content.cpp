#include "tools/audit/content.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace qdb::audit
{
namespace
{

// The width of objSize, which every object begins with.
constexpr size_t kSizeWidth = 4;

// The dependency list's offset of setup enumerations comes with flags in its
// upper bits from some libraries; above this they are cut off.
constexpr uint16_t kSetupEnumerations[] = {0x706, 0x726, 0x746, 0x786};
constexpr size_t kDependencyAt = 0x4C;
constexpr uint64_t kMaxDependency = 4000;
constexpr uint8_t kDependencyHighBits = 0x0F;

[[noreturn]] void Garbled(const char *what)
{
    throw std::invalid_argument(std::string("garbled dump: ") + what);
}

uint64_t NumberIn(const json_t *object, const char *name, uint64_t highest)
{
    const json_t *value = json_object_get(object, name);
    const json_int_t number = json_integer_value(value);
    if (!json_is_integer(value) || number < 0 ||
        static_cast<uint64_t>(number) > highest)
    {
        Garbled(name);
    }
    return static_cast<uint64_t>(number);
}

std::string TextIn(const json_t *object, const char *name)
{
    const json_t *value = json_object_get(object, name);
    if (!json_is_string(value))
    {
        Garbled(name);
    }
    return {json_string_value(value), json_string_length(value)};
}

uint8_t DigitOf(char c)
{
    constexpr std::string_view kDigits = "0123456789abcdef";
    const size_t digit = kDigits.find(c);
    if (digit == std::string_view::npos)
    {
        Garbled("hex");
    }
    return static_cast<uint8_t>(digit);
}

std::vector<uint8_t> BytesIn(const json_t *object)
{
    const std::string text = TextIn(object, "hex");
    if (text.size() % 2 != 0)
    {
        Garbled("hex");
    }
    std::vector<uint8_t> bytes(text.size() / 2);
    for (size_t i = 0; i < bytes.size(); ++i)
    {
        bytes[i] = static_cast<uint8_t>(DigitOf(text[2 * i]) << 4 |
                                        DigitOf(text[2 * i + 1]));
    }
    return bytes;
}

std::vector<uint32_t> ParentsIn(const json_t *object)
{
    std::vector<uint32_t> parents;
    const json_t *list = json_object_get(object, "parents");
    for (size_t i = 0; i < json_array_size(list); ++i)
    {
        parents.push_back(
            static_cast<uint32_t>(json_integer_value(json_array_get(list, i))));
    }
    return parents;
}

Object ParseObject(const json_t *dumped)
{
    Object object;
    object.oid = static_cast<uint32_t>(NumberIn(dumped, "oid", UINT32_MAX));
    object.type = static_cast<uint16_t>(NumberIn(dumped, "type", UINT16_MAX));
    object.key = TextIn(dumped, "key");
    object.bytes = BytesIn(dumped);
    object.parents = ParentsIn(dumped);
    if (json_object_get(dumped, "group") != nullptr)
    {
        object.group = TextIn(dumped, "group");
    }
    return object;
}

} // namespace

Content ParseContent(const json_t *dump)
{
    const json_t *objects = json_object_get(dump, "objects");
    if (!json_is_array(objects))
    {
        Garbled("objects");
    }
    Content content;
    for (size_t i = 0; i < json_array_size(objects); ++i)
    {
        content.objects.push_back(ParseObject(json_array_get(objects, i)));
    }
    return content;
}

ObjectBytes::ObjectBytes(const Object &object)
    : bytes_(object.bytes), size_(kSizeWidth)
{
    size_ = Unsigned(0, kSizeWidth).value_or(0);
    const auto dependency = Unsigned(kDependencyAt, 2);
    if (dependency.value_or(0) > kMaxDependency &&
        bytes_.size() > kDependencyAt + 1 &&
        std::ranges::find(kSetupEnumerations, object.type) !=
            std::end(kSetupEnumerations))
    {
        bytes_[kDependencyAt + 1] &= kDependencyHighBits;
    }
}

std::optional<uint64_t> ObjectBytes::Unsigned(uint64_t offset,
                                              size_t width) const
{
    if (!Holds(offset, width))
    {
        return std::nullopt;
    }
    uint64_t number = 0;
    for (size_t i = 0; i < width; ++i)
    {
        number |= uint64_t{At(offset + i)} << (8 * i);
    }
    return number;
}

std::optional<int64_t> ObjectBytes::Signed(uint64_t offset, size_t width) const
{
    const std::optional<uint64_t> number = Unsigned(offset, width);
    if (!number)
    {
        return std::nullopt;
    }
    const size_t unused = 64 - 8 * width;
    return static_cast<int64_t>(*number << unused) >> unused;
}

std::optional<std::string> ObjectBytes::Text(uint64_t offset,
                                             uint64_t limit) const
{
    if (offset >= size_)
    {
        return std::nullopt;
    }
    std::string text;
    for (uint64_t i = offset; i < size_ && text.size() < limit && At(i) != 0;
         ++i)
    {
        text += static_cast<char>(At(i));
    }
    return text;
}

std::optional<std::string> ObjectBytes::EndedText(uint64_t offset) const
{
    std::optional<std::string> text = Text(offset);
    if (text && offset + text->size() >= size_)
    {
        return std::nullopt;
    }
    return text;
}

} // namespace qdb::audit

// Small things that the stand-in's files share.
#include "standin/support.h"

#include "standin/cost.h"

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace standin
{
namespace
{

template <typename T>
std::optional<T> NumberIn(const json_t *value)
{
    if (!json_is_string(value))
    {
        return std::nullopt;
    }
    std::string_view text = json_string_value(value);
    const bool isHex = text.starts_with("0x") || text.starts_with("0X");
    text.remove_prefix(isHex ? 2 : 0);
    T number = 0;
    const auto [end, error] = std::from_chars(
        text.data(), text.data() + text.size(), number, isHex ? 16 : 10);
    const bool isWhole =
        error == std::errc() && end == text.data() + text.size();
    return isWhole && !(isHex && text[0] == '-') ? std::optional(number)
                                                 : std::nullopt;
}

__attribute__((format(printf, 1, 0))) std::string PrintList(const char *format,
                                                            va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    // The terminator goes where a string keeps its own.
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

uint8_t Digit(char c)
{
    const std::string_view digits = "0123456789abcdefABCDEF";
    const size_t at = digits.find(c);
    if (at == std::string_view::npos)
    {
        Refuse("byte 0x%02X isn't a hexadecimal digit",
               static_cast<unsigned char>(c));
    }
    return static_cast<uint8_t>(at < 16 ? at : at - 6);
}

} // namespace

std::optional<uint64_t> UnsignedOf(const json_t *value)
{
    if (!json_is_integer(value))
    {
        return NumberIn<uint64_t>(value);
    }
    const json_int_t number = json_integer_value(value);
    return number < 0 ? std::nullopt
                      : std::optional(static_cast<uint64_t>(number));
}

std::optional<int64_t> SignedOf(const json_t *value)
{
    return json_is_integer(value)
               ? std::optional<int64_t>(json_integer_value(value))
               : NumberIn<int64_t>(value);
}

std::string Print(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::string text = PrintList(format, arguments);
    va_end(arguments);
    return text;
}

void Refuse(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Refusal refusal = {PrintList(format, arguments)};
    va_end(arguments);
    throw refusal;
}

void Complain(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const std::string text = PrintList(format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "dmstandin: %s\n", text.c_str());
}

std::string ToHex(std::span<const uint8_t> bytes)
{
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const uint8_t byte : bytes)
    {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xF];
    }
    return text;
}

std::vector<uint8_t> FromHex(std::string_view text)
{
    if (text.size() % 2 != 0)
    {
        Refuse("half a byte is missing");
    }
    std::vector<uint8_t> bytes(text.size() / 2);
    for (size_t i = 0; i < bytes.size(); ++i)
    {
        bytes[i] = static_cast<uint8_t>(Digit(text[2 * i]) << 4 |
                                        Digit(text[2 * i + 1]));
    }
    return bytes;
}

size_t ClaimedSize(std::span<const uint8_t> bytes)
{
    uint32_t claimed = 0;
    std::memcpy(&claimed, bytes.data(),
                std::min(bytes.size(), sizeof(claimed)));
    return std::max(bytes.size(), size_t{claimed});
}

void *ClaimedCopy(std::span<const uint8_t> bytes, size_t least)
{
    void *copy = std::calloc(1, std::max(ClaimedSize(bytes), least));
    if (copy != nullptr && !bytes.empty())
    {
        std::memcpy(copy, bytes.data(), bytes.size());
    }
    return copy;
}

void RunInBackground(std::function<void()> body)
{
    // A thread inherits the mask, so it is blocked from its first instruction.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread(
        [body = std::move(body)]
        {
            const OwnThread own;
            body();
        })
        .detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

} // namespace standin

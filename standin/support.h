// Small things that the stand-in's files share: numbers in
// JSON, texts from formats, hexadecimal bytes and background threads.
#pragma once

#include "core/json.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace standin
{

using Json = qdb::JsonPtr;

// The number that a JSON integer or a text such as "22" or "0x16" stands for;
// nothing for any other value, and for a number outside of the type.
std::optional<uint64_t> UnsignedOf(const json_t *value);
std::optional<int64_t> SignedOf(const json_t *value);

// What printf would print.
std::string Print(const char *format, ...)
    __attribute__((format(printf, 1, 2)));

// Ends a command or the building of an object, with the reason for its user.
// Caught where the command began; never leaves the stand-in.
struct Refusal
{
    std::string reason;
};
[[noreturn]] void Refuse(const char *format, ...)
    __attribute__((format(printf, 1, 2)));

// Bytes as lower-case hexadecimal digits, and back. Refuses a text that isn't
// pairs of such digits.
std::string ToHex(std::span<const uint8_t> bytes);
std::vector<uint8_t> FromHex(std::string_view text);

// The size of a record or an object as its first word claims it, or as it is if
// that is more.
size_t ClaimedSize(std::span<const uint8_t> bytes);

// A copy from calloc of at least the claimed size, with zeros behind the bytes.
// NULL without memory.
void *ClaimedCopy(std::span<const uint8_t> bytes, size_t least = 0);

// Runs `body` on a thread of its own that nobody joins and that takes no
// signal: signals are the service's.
void RunInBackground(std::function<void()> body);

// One line on standard error, for faults of the environment that nobody asked
// about; the stand-in goes on without what failed.
void Complain(const char *format, ...) __attribute__((format(printf, 1, 2)));

} // namespace standin

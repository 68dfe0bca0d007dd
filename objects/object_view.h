// A Data Manager object as untrusted bytes.
//
// Nothing outside the object is ever read: every access names its offset and
// gets nothing when the field does not lie wholly inside objSize.
#pragma once

#include "platform/zoil.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

namespace qdb
{

// The smallest object there is: a header up to the body.
inline constexpr uint32_t kMinObjectSize = 16;

// Offset texts beyond this place are invalid.
inline constexpr uint32_t kMaxTextOffset = 5000;

// Where every object's header has the word that points to its key.
inline constexpr size_t kKeyWordAt = 0x14;

// Offsets are 64 bits wide everywhere: an object's words are added up as they
// are, and a sum that wraps round would lead to a place inside again.
class ObjectView
{
  public:
    // The object must really hold objSize bytes, and outlive the view.
    explicit ObjectView(const DataObjHeader *pDOH)
        : bytes_(reinterpret_cast<const char *>(pDOH)), size_(pDOH->objSize)
    {
    }

    uint64_t Size() const
    {
        return size_;
    }

    // The field at `offset`.
    template <typename T>
    std::optional<T> Read(uint64_t offset) const
    {
        if (offset > size_ || size_ - offset < sizeof(T))
        {
            return std::nullopt;
        }
        T value;
        std::memcpy(&value, bytes_ + offset, sizeof(T));
        return value;
    }

    // The unsigned number of `size` bytes, 1 to 8, at `offset`.
    std::optional<uint64_t> Number(uint64_t offset, size_t size) const
    {
        if (offset > size_ || size_ - offset < size)
        {
            return std::nullopt;
        }
        uint64_t number = 0;
        if (size_ - offset < sizeof(number))
        {
            std::memcpy(&number, bytes_ + offset, size);
            return number;
        }
        // One load of a fixed size, where there is room for it.
        std::memcpy(&number, bytes_ + offset, sizeof(number));
        return number & UINT64_MAX >> (64 - 8 * size);
    }

    // The text from `offset` to its NUL, or to the object's end when no NUL
    // comes before; nothing when it begins outside.
    std::optional<std::string_view> TextToEnd(uint64_t offset) const
    {
        if (offset >= size_)
        {
            return std::nullopt;
        }
        return std::string_view(
            bytes_ + offset,
            strnlen(bytes_ + offset, static_cast<size_t>(size_ - offset)));
    }

    // The text from `offset` to its NUL; nothing when either is outside.
    std::optional<std::string_view> TextInside(uint64_t offset) const
    {
        const std::optional<std::string_view> text = TextToEnd(offset);
        return text && offset + text->size() < size_ ? text : std::nullopt;
    }

    // The text that the 32-bit word at `wordAt` points to; nothing when the
    // word is 0 or either isn't wholly inside.
    std::optional<std::string_view> TextOfWord(uint64_t wordAt) const
    {
        const uint32_t offset = Read<uint32_t>(wordAt).value_or(0);
        return offset == 0 ? std::nullopt : TextInside(offset);
    }

    // `length` bytes from `offset`; nothing when they aren't all inside.
    std::optional<std::string_view> Bytes(uint64_t offset, size_t length) const
    {
        if (offset > size_ || size_ - offset < length)
        {
            return std::nullopt;
        }
        return std::string_view(bytes_ + offset, length);
    }

  private:
    const char *bytes_;
    uint64_t size_;
};

} // namespace qdb

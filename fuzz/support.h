// What the targets share: the reading of an input, promises, and the service's
// database and queues without its threads.
#pragma once

#include "fuzz/targets.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

namespace qdb::fuzz
{

// Takes an input from its front. What is missing at its end is zeros.
class Input
{
  public:
    explicit Input(Bytes bytes) : rest_(bytes)
    {
    }

    bool IsEmpty() const
    {
        return rest_.empty();
    }

    // So many bytes, or what is left.
    Bytes Take(size_t size)
    {
        const Bytes taken = rest_.first(std::min(size, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }
    Bytes Rest()
    {
        return Take(rest_.size());
    }

    uint8_t Byte()
    {
        return Number<uint8_t>();
    }
    uint16_t Word()
    {
        return Number<uint16_t>();
    }
    uint32_t Dword()
    {
        return Number<uint32_t>();
    }

    // A text whose length is its first byte. It holds no NUL.
    std::string Text()
    {
        const Bytes bytes = Take(Byte());
        return {bytes.begin(), std::ranges::find(bytes, 0)};
    }

    // One of these, by a byte.
    template <typename List>
    const auto &OneOf(const List &list)
    {
        return list[Byte() % std::size(list)];
    }

  private:
    template <typename T>
    T Number()
    {
        T number = 0;
        const Bytes bytes = Take(sizeof(T));
        std::memcpy(&number, bytes.data(), bytes.size());
        return number;
    }

    Bytes rest_;
};

// Throws unless it holds.
void Require(bool holds, const std::string &what);

// A block of the claimed size, but not below `least`: the bytes, cut off or
// with zeros behind them, and the size in its first word. Of exactly that size,
// so that a sanitizer sees what is read behind it.
std::vector<uint8_t> Block(Bytes bytes, uint32_t claimed, size_t least = 16);

// Writes bytes at places, both from the input, three of it each.
void ChangeBytes(std::vector<uint8_t> *pBytes, Input input);

// An object, or a record, at the beginning of a block.
template <typename Head>
Head *HeadOf(std::vector<uint8_t> &block)
{
    return reinterpret_cast<Head *>(block.data());
}

// Whoever has one finds the service's database open, in memory, with its tables
// and no rows, the queues empty, the stand-in without objects, and nobody
// sleeping or logging. Its end clears the queues, and the rows if `clearsRows`.
class MirrorInMemory
{
  public:
    explicit MirrorInMemory(bool clearsRows = true);
    ~MirrorInMemory();
    MirrorInMemory(const MirrorInMemory &) = delete;
    MirrorInMemory &operator=(const MirrorInMemory &) = delete;

  private:
    const bool clearsRows_;
};

// The one value of a query, as text; "" for NULL and without a row.
std::string QueryValue(const std::string &sql);

} // namespace qdb::fuzz

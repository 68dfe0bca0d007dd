// What the tests of the stand-in share: JSON from texts, and fields of objects
// read without the service's own reader.
#pragma once

#include "platform/zoil.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace standin_test
{

using Bytes = std::vector<uint8_t>;

struct Release
{
    void operator()(json_t *value) const
    {
        json_decref(value);
    }
    void operator()(void *memory) const
    {
        ZOILFreeGeneric(memory);
    }
};
using Json = std::unique_ptr<json_t, Release>;
template <typename T>
using Owned = std::unique_ptr<T, Release>;

inline Json Parse(const std::string &text)
{
    json_error_t error = {};
    Json value(json_loads(text.c_str(), 0, &error));
    EXPECT_NE(value, nullptr) << error.text << " in " << text;
    return value;
}

inline uint64_t Load(const Bytes &bytes, size_t at, size_t size)
{
    EXPECT_LE(at + size, bytes.size());
    uint64_t value = 0;
    for (size_t i = 0; i < size && at + i < bytes.size(); ++i)
    {
        value |= uint64_t{bytes[at + i]} << (8 * i);
    }
    return value;
}

// The text at the offset; "(unterminated)" when the object ends before it.
inline std::string TextAt(const Bytes &bytes, size_t at)
{
    const auto begin =
        bytes.begin() + static_cast<ptrdiff_t>(std::min(at, bytes.size()));
    const auto end = std::find(begin, bytes.end(), 0);
    return end == bytes.end() ? "(unterminated)" : std::string(begin, end);
}

} // namespace standin_test

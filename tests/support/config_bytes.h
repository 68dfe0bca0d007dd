// Attributes and groups of the configuration manager as bytes, well-formed and
// otherwise.
#pragma once

#include "config/config_objects.h"
#include "tests/support/mirror.h"

#include <cstring>
#include <string>
#include <vector>

namespace qdb::test
{

using Bytes = std::vector<uint8_t>;

// Where an object holds its size, its type, and the offset of its key.
inline constexpr size_t kSizeWord = 0;
inline constexpr size_t kTypeWord = 8;
inline constexpr size_t kKeyWord = 20;

// A copy with another 32-bit word at the offset.
inline Bytes With(Bytes object, size_t offset, uint32_t word)
{
    std::memcpy(&object[offset], &word, sizeof(word));
    return object;
}

inline Bytes Attribute(const std::string &key, uint32_t oid = 1,
                       uint16_t type = TYPE_CFGINT)
{
    return MakeObject(type, oid, R"({"Key": ")" + key + R"("})");
}

inline Bytes Group(const std::string &key)
{
    constexpr uint32_t kKeyAt = 24;
    Bytes object(kKeyAt);
    object.insert(object.end(), key.begin(), key.end());
    object.push_back(0);
    object = With(object, kSizeWord, static_cast<uint32_t>(object.size()));
    object = With(object, kTypeWord, 0x4050);
    return With(object, kKeyWord, kKeyAt);
}

// An attribute of the stand-in's configuration manager, with its group.
inline void PutAttribute(const char *interfaceName, const std::string &key,
                         uint32_t oid = 0)
{
    ASSERT_EQ(standin::PutAttribute(interfaceName, key, nullptr, oid), "");
}

} // namespace qdb::test

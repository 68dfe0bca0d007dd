// What the database should mirror, as plain data: the objects of the Data
// Manager and the attributes of the configuration manager.
#pragma once

#include "core/json.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qdb::audit
{

struct Object
{
    uint32_t oid = 0;
    uint16_t type = 0;
    std::string key;
    std::vector<uint8_t> bytes;
    std::vector<uint32_t> parents; // whether they exist or not; in order

    // Set for an attribute: the key of its group, which stands in for the
    // parent.
    std::optional<std::string> group;
};

struct Content
{
    std::vector<Object> objects; // of both managers, in any order
};

// The reply to the stand-in's "dump". Throws std::invalid_argument for a reply
// of another form.
Content ParseContent(const json_t *dump);

// The OID as the database holds it: OIDs are signed there.
constexpr int64_t StoredOid(uint32_t oid)
{
    return static_cast<int32_t>(oid);
}

// The bytes of an object, read with bounds. The object is as large as it
// claims, with zeros behind the bytes given: so its owner hands it out. Places
// are 64 bits wide, so that no sum of an object's words wraps round.
class ObjectBytes
{
  public:
    explicit ObjectBytes(const Object &object);

    uint64_t Size() const
    {
        return size_;
    }

    // The little-endian number of `width` bytes; nothing when it isn't wholly
    // inside.
    std::optional<uint64_t> Unsigned(uint64_t offset, size_t width) const;
    std::optional<int64_t> Signed(uint64_t offset, size_t width) const;

    // The text up to its NUL, `limit` or the end; nothing when it begins
    // outside.
    std::optional<std::string> Text(uint64_t offset,
                                    uint64_t limit = UINT64_MAX) const;

    // The text up to its NUL; nothing when that isn't inside.
    std::optional<std::string> EndedText(uint64_t offset) const;

    // Whether `width` bytes are inside.
    bool Holds(uint64_t offset, uint64_t width) const
    {
        return offset <= size_ && width <= size_ - offset;
    }

  private:
    uint8_t At(uint64_t offset) const
    {
        return offset < bytes_.size() ? bytes_[static_cast<size_t>(offset)] : 0;
    }

    std::vector<uint8_t> bytes_;
    uint64_t size_;
};

} // namespace qdb::audit

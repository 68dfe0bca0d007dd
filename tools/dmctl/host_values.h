// Column values of an object of this machine.
#pragma once

#include "objects/schema/table.h"
#include "tools/dmctl/json.h"

#include <cstdint>
#include <optional>
#include <string>

namespace qdb
{

// A value that is not there is left out; one that does not fit is cut to what
// its column holds.
class HostValues
{
  public:
    explicit HostValues(const Table &table);

    void Text(const char *column, const std::optional<std::string> &text);
    void Number(const char *column, std::optional<int64_t> number);

    // The values so far; there are none afterwards.
    Json Take();

  private:
    const Source &Find(const char *name) const;

    const Table &mTable;
    Json mValues;
};

// The longest beginning of the text that fits with its NUL, cut between
// characters. In a text that is no UTF-8 all bytes but ASCII become '?'.
std::string TextThatFits(std::string text, size_t room);

// Room for a text that is bounded by the whole object only: enough for a name.
inline constexpr size_t kOffsetTextRoom = 128;

} // namespace qdb

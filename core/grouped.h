// Numbers for people.
#pragma once

#include <cstdint>
#include <string>

namespace qdb
{

// With a comma before every three digits from the right.
inline std::string Grouped(uint64_t number)
{
    std::string text = std::to_string(number);
    constexpr size_t kGroup = 3;
    for (size_t at = text.size(); at > kGroup;)
    {
        at -= kGroup;
        text.insert(at, ",");
    }
    return text;
}

} // namespace qdb

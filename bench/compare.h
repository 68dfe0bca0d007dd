// Whether two databases hold the same.
#pragma once

#include <cstdint>
#include <string>

namespace qdb::bench
{

// Throws std::runtime_error unless both files hold the same rows in all tables,
// their tags left out, and that many objects.
void CheckSameRows(const std::string &service, const std::string &plain,
                   uint64_t objects);

} // namespace qdb::bench

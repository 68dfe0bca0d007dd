// The log level and where lines go; the log call itself is in log.cpp.
#pragma once

namespace standin
{

// Takes the level from the text of a number; NULL: 0. For the start only, and
// without effect once SetLog has been called.
void StartLog(const char *level);

} // namespace standin

// Scenario files: the objects and attributes that exist at the start, and the
// faults that even the first call meets.
#pragma once

namespace standin
{

// Makes what the file describes. What is wrong in it is told on standard
// error, with the entry's number, and left out.
void LoadScenario(const char *path);

} // namespace standin

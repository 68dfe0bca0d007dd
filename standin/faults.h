// Injected failures of the platform functions.
#pragma once

#include <cstddef>

namespace standin
{

// For a call of a function for which a fault is armed: true when it has to
// fail, with the status in *pStatus.
bool TakeFault(size_t index, int *pStatus);

// Removes all faults.
void ResetFaults();

} // namespace standin

// What may happen in a chaos run, an epoch at a time.
#pragma once

#include "tests/chaos/chaos.h"

namespace qdb::chaos
{

// Some actions at once, or some while a platform call fails; then waits for the
// service. False when it is stuck.
bool RunEpoch(Chaos &chaos);

// Makes everything anew, and waits until passes have looked at it. False when
// the service is stuck.
bool Quieten(Chaos &chaos);

} // namespace qdb::chaos

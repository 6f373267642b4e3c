// Checks that the agent's state is what its inputs demand: a second root, made from a copy of the
// inputs as they are now, must publish the same. The platform adds what it knows of the kernel.
//
// It changes nothing, but takes longer than path selection takes to start, so it is called in a copy
// of the process.
#pragma once

#include <string>
#include <vector>

#include "agent/router/Platform.h"
#include "nav/types/NavDb.h"

namespace Agent {

// A sentence for each difference; empty if there is none. Ids, indices and generations may differ,
// and are checked for being unique and held by somebody who needs them. `database`: null while path
// selection is switched off. REQUIRES: no task is due.
std::vector<std::string> validate(const Nav::NavInputs& inputs, const Nav::NavDb* database,
                                  Platform& platform);

}  // namespace Agent

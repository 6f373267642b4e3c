// What a change of the configuration would do to paths and to traffic, computed by a second path
// selection with the configuration as it would be.
#pragma once

#include "agent/model/Transaction.h"
#include "agent/observe/Observer.h"

namespace Agent {

// {"configuration":[…],"paths":[…],"traffic":[…]}; docs/configuration.md describes the members of
// each row. Of the paths that carry traffic afterwards, only those that are up now are known. The
// running agent is not changed. REQUIRES: the transaction has been checked, and the observer has
// just observed.
Json foresee(const Nav::NavInputs& inputs, const Nav::NavDb* database, const Platform& platform,
             const Observer& observer, const Transaction& transaction);

}  // namespace Agent

// `show counters`: traffic per load-balance id and per member path, read from the shared table in
// the agent's run directory without the agent. Rates are computed from two readings.
#pragma once

#include <functional>
#include <string>

#include "navctl/TextTable.h"

namespace Navctl {

// Reads the table twice, with at least one commit of its writer and at least one second in between,
// and shows the second reading; with `watch` also each later commit, at most once a second, until
// the writer stops or the process is interrupted. Throws NoAgent if there is no table.
void showCounters(const std::string& runDir, bool watch,
                  const std::function<void(const TextTable&)>& show);

}  // namespace Navctl

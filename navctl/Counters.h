// `show counters`: traffic per load-balance id and per member path, read from the shared table of
// the agent's run directory without asking the agent. Rates come from two readings.
#pragma once

#include <functional>
#include <string>

#include "navctl/Table.h"

namespace Navctl {

// Reads the table twice, with at least one commit of its writer and at least a second between, and
// shows what the second reading holds; with `watch` again for each further commit a second or more
// apart, until the writer stops or the process is interrupted. NoAgent when there is no table.
void showCounters(const std::string& runDir, bool watch,
                  const std::function<void(const Table&)>& show);

}  // namespace Navctl

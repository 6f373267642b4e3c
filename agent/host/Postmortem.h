// What an agent leaves behind when it stops for a broken invariant: the assertion on standard
// error, and all records of the trace ring, as text, in a file of the run directory.
#pragma once

#include <string>

#include "agent/shell/Log.h"

namespace Agent {

inline constexpr const char* postmortemName = "postmortem.trace";

// Takes over the process-wide assertion handler. Called by main, before there is anything to
// assert.
void postmortemIs(const std::string& runDir, Log& log);

}  // namespace Agent

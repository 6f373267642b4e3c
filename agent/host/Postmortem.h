// The output of an agent that stops because of a broken invariant: the assertion on standard error,
// and all records of the trace ring as text in a file of the run directory.
#pragma once

#include <string>

#include "agent/shell/Log.h"

namespace Agent {

inline constexpr const char* postmortemName = "postmortem.trace";

// Installs the process-wide assertion handler. Called by main before anything can fail.
void postmortemIs(const std::string& runDir, Log& log);

}  // namespace Agent

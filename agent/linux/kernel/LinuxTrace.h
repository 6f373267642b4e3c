// What the agent's view of the Linux kernel traces under.
#pragma once

#include "platform/trace/Duolog.h"

namespace Agent::Linux {

inline Duolog::Facility linuxTrace{"linux"};

}  // namespace Agent::Linux

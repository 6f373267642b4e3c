// The trace facility of everything that talks to the Linux kernel.
#pragma once

#include "platform/trace/Duolog.h"

namespace Agent::Linux {

inline Duolog::Facility linuxTrace{"linux"};

}  // namespace Agent::Linux

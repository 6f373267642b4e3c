// The trace facility of the code that communicates with the Linux kernel.
#pragma once

#include "platform/trace/Duolog.h"

namespace Agent::Linux {

inline Duolog::Facility linuxTrace{"linux"};

}  // namespace Agent::Linux

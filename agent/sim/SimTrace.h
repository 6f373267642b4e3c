// The trace facility of the simulated router and network.
#pragma once

#include "platform/trace/Duolog.h"

namespace Agent::Sim {

inline Duolog::Facility simTrace{"sim"};

}  // namespace Agent::Sim

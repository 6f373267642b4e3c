// The trace facility of what the platforms share.
#pragma once

#include "platform/trace/Duolog.h"

namespace Agent {

inline Duolog::Facility routerTrace{"router"};

}  // namespace Agent

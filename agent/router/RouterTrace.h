// The trace facility of the code that the platforms share.
#pragma once

#include "platform/trace/Duolog.h"

namespace Agent {

inline Duolog::Facility routerTrace{"router"};

}  // namespace Agent

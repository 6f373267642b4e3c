// The trace facility of the root, the container and the show commands.
#pragma once

#include "platform/trace/Duolog.h"

namespace Nav {

inline Duolog::Facility rootTrace{"root"};

}  // namespace Nav

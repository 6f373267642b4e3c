// The trace facility of the load-balance reactors.
#pragma once

#include "platform/trace/Duolog.h"

namespace Nav {

inline Duolog::Facility lbTrace{"lb"};

}  // namespace Nav

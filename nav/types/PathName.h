#pragma once

#include <string>

#include "platform/vel/Types.h"

namespace Nav {

// How every output names a path that has an index: "Path3".
inline std::string pathName(Vel::U32 pathIndex) {
    return "Path" + std::to_string(pathIndex);
}

}  // namespace Nav

// The trace facility of path construction and path resolution.
#pragma once

#include "platform/netz/IntfId.h"
#include "platform/trace/Duolog.h"

namespace Nav {

inline Duolog::Facility pathTrace{"path"};

// An interface traced by its short name. The text is made when the trace is read.
struct ShortName {
    Netz::IntfId intf;
    std::string stringValue() const { return intf.shortName(); }
};

}  // namespace Nav

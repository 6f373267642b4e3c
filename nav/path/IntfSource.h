// The source of one interface's paths.
#pragma once

#include <optional>

#include "nav/types/PathTypes.h"

namespace Nav {

struct IntfSource {
    Netz::IpGenAddr addr;      // the primary address; zero: none
    L3::VrfName vrfName;       // the interface's VRF
    std::optional<U32> vrfId;  // empty while it is not known

    bool operator==(const IntfSource&) const = default;
    bool offersPaths() const { return !addr.isZero() && vrfId; }
};

}  // namespace Nav

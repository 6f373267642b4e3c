// What the paths of one interface are built from.
#pragma once

#include <optional>

#include "nav/types/PathTypes.h"

namespace Nav {

struct IntfSource {
    Netz::IpGenAddr addr;      // the primary address, zero while there is none
    L3::VrfName vrfName;       // the interface's VRF
    std::optional<U32> vrfId;  // nothing while it is not known

    bool operator==(const IntfSource&) const = default;
    bool offersPaths() const { return !addr.isZero() && vrfId; }
};

}  // namespace Nav

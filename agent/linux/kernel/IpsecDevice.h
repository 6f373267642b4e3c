// The device into which packets go that charon encrypts itself, where the kernel cannot.
#pragma once

#include "agent/linux/kernel/LinkState.h"

namespace Agent::Linux {

inline constexpr const char* ipsecDevice = "ipsec0";

// Null unless charon encrypts itself.
inline const Interface* ipsecDeviceIn(const InterfaceView& view) {
    return view.named(Netz::IntfId(ipsecDevice));
}

}  // namespace Agent::Linux

// The values of Ipsec::Path::PathStatus::connectionState.
#pragma once

#include "platform/services/Ipsec.h"

namespace Agent {

enum class ConnectionState : Vel::U32 { down, connecting, rekeying, established, failed };
VEL_ENUM(ConnectionState, down, connecting, rekeying, established, failed)
static_assert(static_cast<Vel::U32>(ConnectionState::established) == Ipsec::Path::established);

}  // namespace Agent

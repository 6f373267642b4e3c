// Reads the agent's own objects from the kernel: what bears `ownProtocol` or is in `ownLinkGroup`.
#pragma once

#include "agent/linux/kernel/NetlinkSocket.h"
#include "agent/linux/kernel/Objects.h"

namespace Agent::Linux {

// Empty if they cannot be read, or changed all the time.
std::optional<Objects> readObjects(RequestSocket& requests);

}  // namespace Agent::Linux

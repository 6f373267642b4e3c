// Reads the agent's objects from the kernel: those with `ownProtocol` or in `ownLinkGroup`.
#pragma once

#include "agent/linux/kernel/NetlinkSocket.h"
#include "agent/linux/kernel/Objects.h"

namespace Agent::Linux {

// Nothing if the kernel refuses, or if objects changed during each of four attempts.
std::optional<Objects> readObjects(RequestSocket& requests);

// The tables in which others have routes.
std::set<uint32_t> tablesOfOthers(RequestSocket& requests);

}  // namespace Agent::Linux

// The trace facility of the IPsec service. Nothing secret is ever an argument of it.
#pragma once

#include "platform/trace/Duolog.h"

namespace Agent::Linux {

inline Duolog::Facility ipsecTrace{"ipsec"};

}  // namespace Agent::Linux

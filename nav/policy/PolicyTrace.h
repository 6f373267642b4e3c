// The trace facility of the policy reactors. Their lines are prefixed by the method's signature.
#pragma once

#include "platform/trace/Duolog.h"

namespace Nav {

inline Duolog::Facility policyTrace{"policy"};

}  // namespace Nav

#define POLICY_TRACE(level, ...) \
    DUOLOG(::Nav::policyTrace, level, __PRETTY_FUNCTION__, ": ", __VA_ARGS__)

// The classification module: the application profiles that each policy distinguishes, their order
// of precedence, and the policy that each VRF applies.
#pragma once

#include "platform/vel/Entity.h"

namespace Classification {

class VEL_EXPORT FeaturePolicy : public Vel::Entity {
    VEL_ENTITY(FeaturePolicy, Vel::Name, name)
    VEL_MAP(Vel::U32, Vel::String, appProfilePriority)  // priority to application profile
    VEL_COUNTER(Vel::U32, version, 0)                   // raised when the priorities are complete
};

inline constexpr Vel::U32 vrfTarget = 0;  // the target type of VRFs

class VEL_EXPORT AppliedPolicy : public Vel::Entity {
    VEL_ENTITY(AppliedPolicy, Vel::U32, targetType)
    VEL_MAP(L3::VrfName, Vel::String, policyForTarget)
};

class VEL_EXPORT FeaturePolicyDir : public Vel::Entity {
    VEL_ENTITY(FeaturePolicyDir, Vel::Name, name)
    VEL_COLLECTION(Vel::Name, FeaturePolicy, featurePolicy)
    VEL_COLLECTION(Vel::U32, AppliedPolicy, appliedPolicy)
};

}  // namespace Classification

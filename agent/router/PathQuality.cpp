#include "agent/router/PathQuality.h"

namespace Agent {

VEL_DEFINE(Agent, QualityStatus)

}  // namespace Agent

#include "platform/Export.h"

namespace Vel {

const char VEL_BUILD_KIND = 0;

}  // namespace Vel

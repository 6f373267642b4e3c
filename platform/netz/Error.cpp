#include "platform/netz/Error.h"

namespace Vel {

// Out of line, so that the type information lives in one library and a catch in another one
// matches.
Error::~Error() = default;
RangeError::~RangeError() = default;

}  // namespace Vel

#include "platform/netz/Error.h"

namespace Vel {

// Out of line, so that the type information exists in one library only and exceptions can be caught
// in another.
Error::~Error() = default;
RangeError::~RangeError() = default;

}  // namespace Vel

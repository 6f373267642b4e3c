// The errors that the platform throws for bad input. Each carries its whole message; message texts
// that callers rely on are fixed. Impossible states are assertions instead (Assert.h).
#pragma once

#include <stdexcept>

#include "platform/Export.h"

namespace Vel {

class VEL_EXPORT Error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
    ~Error() override;
};

// A value outside the range of its type.
class VEL_EXPORT RangeError : public Error {
  public:
    using Error::Error;
    ~RangeError() override;
};

}  // namespace Vel

// Where the shared tables of one agent live. Segments of POSIX shared memory have one flat name
// space for the whole host, so a segment's name carries the agent's run directory: two agents with
// different run directories never meet, and a reader finds its agent by that directory alone.
// The directory also says whom to trust: a segment counts only when it belongs to the directory's
// owner, since anybody may create names in shared memory.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "platform/Export.h"

namespace Shard {

class VEL_EXPORT Namespace {
  public:
    // The directory must exist; it is made canonical. Raises Vel::Error.
    explicit Namespace(const std::string& runDirectory);

    // "/shard.<hash of the directory>.<map>". A map's name has 1 to 64 letters, digits, '_', '-'
    // or '.'; raises Vel::Error for any other.
    std::string segmentName(std::string_view map) const;
    uid_t owner() const { return owner_; }

  private:
    std::string prefix_;
    uid_t owner_;
};

}  // namespace Shard

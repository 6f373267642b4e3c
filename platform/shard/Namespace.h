// The place of the shared maps of one agent: its run directory, with one file for each map. Agents
// with different run directories are independent, and a reader finds its agent by that directory
// alone.
//
// The directory also decides whom to trust and who may read. A map's file is accepted only if it
// belongs to the directory's owner or to root and nobody else may write it. A directory of mode
// 0750 lets its group read the maps: their files then have mode 0640 and that group, otherwise mode
// 0600.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "platform/Export.h"

namespace Shard {

class VEL_EXPORT Namespace {
  public:
    // Examines the directory once and makes its path canonical. Raises Vel::Error if it does not
    // exist.
    explicit Namespace(const std::string& runDirectory);

    const std::string& directory() const { return directory_; }
    // "DIRECTORY/shard.MAP". A map's name has 1 to 64 letters, digits, '_', '-' or '.'; raises
    // Vel::Error for any other.
    std::string fileOf(std::string_view map) const;
    uid_t owner() const { return owner_; }
    // The group that may read the maps; empty if only the owner may.
    std::optional<gid_t> readers() const { return readers_; }

  private:
    std::string directory_;
    uid_t owner_;
    std::optional<gid_t> readers_;
};

}  // namespace Shard

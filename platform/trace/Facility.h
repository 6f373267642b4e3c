// A trace facility: the name under which one subsystem traces, and the level up to which it traces.
// A subsystem has one, at namespace scope in a header of its own:
//
//     inline Duolog::Facility pathTrace{"path"};
//
// A facility is never destroyed before the process ends, because trace records refer to it. Levels
// may be changed at any time, on the event thread. A call site of level L traces while L <=
// level().
#pragma once

#include <string_view>
#include <utility>
#include <vector>

#include "platform/Export.h"

namespace Duolog {

class VEL_EXPORT Facility {
  public:
    static constexpr int defaultLevel = 5;

    // `name` is a literal. The initial level is that of the newest levelIs("*", ...), else
    // defaultLevel.
    explicit Facility(const char* name);
    Facility(const Facility&) = delete;
    Facility& operator=(const Facility&) = delete;

    std::string_view name() const { return name_; }
    int level() const { return level_; }
    bool isOn(int level) const { return level <= level_; }
    void levelIs(int level) { level_ = level; }
    Facility* next() const { return next_; }

  private:
    int level_;
    const char* name_;
    Facility* next_;  // in the list of all facilities, newest first
};

// Sets the level of the facilities with that name; "*" means all, including those added later.
// Returns false if no facility has that name.
VEL_EXPORT bool levelIs(std::string_view name, int level);

// Name and level of each facility, sorted by name.
VEL_EXPORT std::vector<std::pair<std::string_view, int>> facilities();

}  // namespace Duolog

// Keeps the process alive when somebody cuts the file behind a mapping. Touching a page that is
// gone raises SIGBUS, and a file with a name cannot be sealed against being cut as memfd_create(2)
// files can. While a guard lives, such a touch puts zeroed private pages in place of the rest of
// the range and sets `hit`, and the access goes on. A fault elsewhere goes to the handler that was
// installed before, or ends the process. A SIGBUS that somebody sent with kill(2) goes to that
// handler too; where there was none, it is ignored. Construct and destroy on any thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/Export.h"

namespace Shard {

class VEL_EXPORT BusGuard {
  public:
    BusGuard(void* base, size_t bytes, bool writable);
    ~BusGuard();
    BusGuard(const BusGuard&) = delete;
    BusGuard& operator=(const BusGuard&) = delete;

    const std::atomic<bool>& hit() const { return range_.hit; }

    // One guarded mapping, in whole pages. Free for the next guard when `end` is 0. All accesses
    // are sequentially consistent: faults are rare, and `end`, stored last, makes the range valid.
    struct Range {
        std::atomic<uintptr_t> begin{0}, end{0};
        std::atomic<bool> writable{false}, hit{false};
        Range* next{nullptr};
    };

  private:
    Range& range_;
};

}  // namespace Shard

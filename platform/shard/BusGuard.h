// Keeps the process alive when another process truncates the file behind a mapping. Access to a
// page that no longer exists raises SIGBUS, and a file with a name cannot be sealed against
// truncation as memfd_create(2) files can. While a guard exists, such an access replaces the rest
// of the range by zeroed private pages, sets `hit`, and continues. A fault elsewhere is passed to
// the handler that was installed before, or ends the process. A SIGBUS sent with kill(2) is passed
// to that handler too, or ignored if there was none. May be constructed and destroyed on any
// thread.
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

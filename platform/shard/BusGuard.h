// Keeps the process alive when somebody cuts the file behind a mapping. Touching a page that is
// gone raises SIGBUS, and POSIX shared memory cannot be sealed against it as memfd_create(2) files
// can. While a guard lives, such a touch puts zeroed private pages in place of the rest of the
// range and sets `hit`; the access that faulted goes on. A SIGBUS elsewhere goes to the handler
// that was there before. Construct and destroy on any thread.
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

    struct Range {
        std::atomic<uintptr_t> begin{0}, end{0};
        std::atomic<bool> writable{false}, hit{false};
        Range* next{nullptr};
    };

  private:
    Range& range_;
};

}  // namespace Shard

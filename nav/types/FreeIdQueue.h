// The free ids in the order in which they will be allocated: the id that has been free longest
// first.
#pragma once

#include <vector>

#include "nav/types/PathTypes.h"
#include "platform/netz/Assert.h"

namespace Nav {

class FreeIdQueue {
  public:
    // Holds the ids 1 to maxId, ascending; none if maxId is 0. Id 0 means "none" and is never free.
    explicit FreeIdQueue(U16 maxId = 0) : ring_(maxId), size_(maxId) {
        for (U32 i = 0; i < maxId; ++i) ring_[i] = static_cast<U16>(i + 1);
    }

    bool empty() const { return size_ == 0; }
    U32 size() const { return size_; }

    // Removes and returns the head; 0 if the queue is empty.
    U16 deq() {
        if (size_ == 0) return 0;
        const U16 id = ring_[head_];
        head_ = next(head_);
        --size_;
        return id;
    }
    // REQUIRES: id was taken from this queue and not returned since.
    void enq(U16 id) {
        VEL_ASSERT(size_ < ring_.size(), "size_ < ring_.size()");
        ring_[tail_] = id;
        tail_ = next(tail_);
        ++size_;
    }

  private:
    U32 next(U32 at) const { return at + 1 == ring_.size() ? 0 : at + 1; }

    std::vector<U16> ring_;  // one slot per id; the free ids are in [head_, head_ + size_)
    U32 head_ = 0;           // position of the next id to allocate
    U32 tail_ = 0;  // position of the next id returned; equals head_ if all or no ids are free
    U32 size_ = 0;
};

}  // namespace Nav

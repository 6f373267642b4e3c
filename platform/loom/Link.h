// A node of a circular list whose objects are members of the list without being owned by it.
#pragma once

namespace Loom {

class Link {
  public:
    Link() = default;
    ~Link() { unlink(); }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    bool linked() const { return next_ != this; }
    Link& next() const { return *next_; }
    void unlink() {
        previous_->next_ = next_;
        next_->previous_ = previous_;
        previous_ = next_ = this;
    }
    // REQUIRES: this is not linked.
    void linkBefore(Link& other) {
        previous_ = other.previous_;
        next_ = &other;
        previous_->next_ = other.previous_ = this;
    }

  private:
    // Neighbours in the circle; both are this link itself while it is not linked.
    Link* previous_ = this;
    Link* next_ = this;
};

}  // namespace Loom

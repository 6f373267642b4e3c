#include "platform/vel/Subscription.h"

#include <string>

#include "platform/netz/Assert.h"
#include "platform/trace/Ringlog.h"
#include "platform/vel/Entity.h"

namespace Vel {

// One notification in progress, on the stack. It holds its position in the list of subscribers, so
// that a subscription that ends is skipped and a new one is not called in this round.
class Round {
  public:
    static constexpr U32 maxDepth = 64;

    Round(Entity& entity, Ordinal attribute)
        : entity_(entity),
          outer_(top),
          end_(entity.last_),
          depth_(top ? top->depth_ + 1 : 1),
          attribute_(attribute) {
        if (depth_ > maxDepth) [[unlikely]]
            tooDeep();
        if (!outer_) Ringlog::newEvent();
        top = this;
    }
    ~Round() { top = outer_; }
    Round(const Round&) = delete;
    Round& operator=(const Round&) = delete;

    // An exception in a subscriber does not keep others from being called; the first error is
    // thrown at the end.
    void run(const void* key) {
        try {
            Subscription* const first = entity_.first_;
            if (first == end_) {  // nothing in the list to keep track of
                end_ = nullptr;
                if (takes(*first)) first->function_(first->object_, key, attribute_);
            } else {
                callFrom(first, key);
            }
        } catch (...) {
            callTheOthers(key);
            throw;
        }
    }

    static void removed(const Subscription& gone) {
        for (Round* round = top; round; round = round->outer_) {
            if (round->next_ == &gone) round->nextIs(&gone == round->end_ ? nullptr : gone.next_);
            if (round->end_ == &gone) round->end_ = gone.prev_;
        }
    }
    static void moved(const Subscription& from, Subscription& to) {
        for (Round* round = top; round; round = round->outer_) {
            if (round->next_ == &from) round->nextIs(&to);
            if (round->end_ == &from) round->end_ = &to;
        }
    }

  private:
    bool takes(const Subscription& subscriber) const {
        return subscriber.attribute_ == attribute_ || subscriber.attribute_ == anyAttribute;
    }
    [[gnu::always_inline]] inline void callFrom(Subscription* first, const void* key) {
        for (Subscription *now = first, *next; now; now = next) {
            next_ = next = now == end_ ? nullptr : now->next_;
            if (!takes(*now)) continue;
            now->function_(now->object_, key, attribute_);
            if (disturbed_) [[unlikely]]  // else the next one is known without loading it
                next = next_;
        }
    }
    [[gnu::cold, gnu::noinline]] void callTheOthers(const void* key) {
        if (const Object* object = objectBeingDestroyed()) {
            const std::string handler = "'s destructor, through a subscriber of " + what() + ",";
            handlerThrew(typeid(*object), handler.c_str());
        }
        while (next_) {
            try {
                callFrom(next_, key);
            } catch (...) {
                continue;  // only the first error is kept
            }
        }
    }

    std::string what() const {
        const TypeDescriptor& type = entity_.type();
        return std::string(type.name).append(".").append(type.attributeName(attribute_));
    }
    [[noreturn, gnu::cold]] void tooDeep() const {
        std::string chain = "notifications nest deeper than 64 rounds:";
        for (const Round* round = this; round; round = round->outer_)
            chain.append(" ").append(round->what());
        assertionFailed(chain.c_str(), __FILE__, __LINE__);
    }

    void nextIs(Subscription* next) {
        next_ = next;
        disturbed_ = true;
    }

    static Round* top;  // the innermost one; one event thread

    Hold hold_;
    Entity& entity_;
    Round* const outer_;
    Subscription* next_ = nullptr;  // to be called next; null after the last
    Subscription* end_;             // the last subscriber of this round
    const U32 depth_;
    const Ordinal attribute_;
    bool disturbed_ = false;  // next_ was changed during a call
};

constinit Round* Round::top = nullptr;

Subscription::Subscription(Entity& entity, Ordinal attribute, void* object, Function function)
    : entity_(&entity),
      prev_(entity.last_),
      object_(object),
      function_(function),
      attribute_(attribute) {
    assertEventThread();
    (prev_ ? prev_->next_ : entity.first_) = this;
    entity.last_ = this;
    entity.interest_ |= Entity::interestIn(attribute);
}

void Subscription::reset() {
    if (!entity_) return;
    assertEventThread();
    Round::removed(*this);
    (prev_ ? prev_->next_ : entity_->first_) = next_;
    (next_ ? next_->prev_ : entity_->last_) = prev_;
    if (!entity_->first_) entity_->interest_ = 0;  // stale bits only cost a walk of the list
    entity_ = nullptr;
}

void Subscription::adopt(Subscription& other) {
    entity_ = std::exchange(other.entity_, nullptr);
    prev_ = other.prev_;
    next_ = other.next_;
    object_ = other.object_;
    function_ = other.function_;
    attribute_ = other.attribute_;
    if (!entity_) return;
    (prev_ ? prev_->next_ : entity_->first_) = this;
    (next_ ? next_->prev_ : entity_->last_) = this;
    Round::moved(other, *this);
}

void Entity::notify(Ordinal attribute, const void* key) {
    Round round(*this, attribute);
    round.run(key);
}

Entity::~Entity() {
    for (Subscription* s = first_; s; s = s->next_) s->entity_ = nullptr;
}

}  // namespace Vel

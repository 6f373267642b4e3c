#include "platform/vel/Subscription.h"

#include <string>

#include "platform/netz/Assert.h"
#include "platform/trace/Ringlog.h"
#include "platform/vel/Entity.h"

namespace Vel {

// One notification in progress, on the stack: keeps alive what it uses, limits how deep
// notifications nest, and begins an event of the trace if it is the outermost one.
class Notification {
  public:
    static constexpr U32 maxDepth = 64;

    Notification(const Entity& entity, Ordinal attribute)
        : entity_(entity), outer_(top), depth_(top ? top->depth_ + 1 : 1), attribute_(attribute) {
        if (depth_ > maxDepth) [[unlikely]]
            tooDeep();
        if (!outer_) Ringlog::newTime();
        top = this;
    }
    ~Notification() { top = outer_; }
    Notification(const Notification&) = delete;
    Notification& operator=(const Notification&) = delete;

    const Entity& entity() const { return entity_; }
    // For an exception that a subscriber threw: in a destructor it has no caller to reach.
    void subscriberThrew() const {
        if (const Object* object = objectBeingDestroyed()) {
            const std::string handler = "'s destructor, through a subscriber of " + what() + ",";
            handlerThrew(typeid(*object), handler.c_str());
        }
    }

  private:
    std::string what() const {
        const TypeDescriptor& type = entity_.type();
        return std::string(type.name).append(".").append(type.attributeName(attribute_));
    }
    [[noreturn, gnu::cold]] void tooDeep() const {
        std::string chain = "notifications nest deeper than 64 rounds:";
        for (const Notification* each = this; each; each = each->outer_)
            chain.append(" ").append(each->what());
        assertionFailed(chain.c_str(), __FILE__, __LINE__);
    }

    static const Notification* top;  // the innermost one; one event thread

    Hold hold_;
    const Entity& entity_;
    const Notification* const outer_;
    const U32 depth_;
    const Ordinal attribute_;
};

constinit const Notification* Notification::top = nullptr;

// The position of a notification in a list of several subscribers, so that a subscription that ends
// is skipped and a new one is not called in this round.
class Round {
  public:
    explicit Round(const Notification& notification)
        : notification_(notification), outer_(top), end_(notification.entity().last_) {
        top = this;
    }
    ~Round() { top = outer_; }
    Round(const Round&) = delete;
    Round& operator=(const Round&) = delete;

    static void call(const Subscription& subscriber, Ordinal attribute, const void* key) {
        if (subscriber.attribute_ != attribute && subscriber.attribute_ != anyAttribute)
            [[unlikely]]
            return;
        subscriber.function_(subscriber.object_, key, attribute);
    }
    // An exception in a subscriber does not keep others from being called; the first error is
    // thrown at the end.
    [[gnu::noinline]] void run(Ordinal attribute, const void* key) {
        try {
            for (Subscription *now = notification_.entity().first_, *next; now; now = next) {
                next_ = next = now->next_;
                call(*now, attribute, key);
                if (disturbed_) return callTheRest(attribute, key);
            }
        } catch (...) {
            notification_.subscriberThrew();
            while (next_) {
                try {
                    callTheRest(attribute, key);
                } catch (...) {
                    continue;  // only the first error is kept
                }
            }
            throw;
        }
    }

    static void added(const Entity& entity) {
        for (Round* round = top; round; round = round->outer_)
            if (&round->notification_.entity() == &entity) round->disturbed_ = true;
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
    void callTheRest(Ordinal attribute, const void* key) {
        while (const Subscription* now = next_) {
            next_ = now == end_ ? nullptr : now->next_;
            call(*now, attribute, key);
        }
    }
    void nextIs(Subscription* next) {
        next_ = next;
        disturbed_ = true;
    }

    static Round* top;  // the innermost one

    const Notification& notification_;
    Round* const outer_;
    Subscription* next_ = nullptr;  // to be called next; null after the last
    Subscription* end_;             // the last subscriber of this round
    bool disturbed_ = false;        // the list has another end, or next_ was changed
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
    Round::added(entity);
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
    const Notification notification(*this, attribute);
    if (first_ != last_) return Round(notification).run(attribute, key);
    try {
        Round::call(*first_, attribute, key);
    } catch (...) {
        notification.subscriberThrew();
        throw;
    }
}

Entity::~Entity() {
    for (Subscription* s = first_; s; s = s->next_) s->entity_ = nullptr;
}

}  // namespace Vel

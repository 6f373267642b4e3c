#include "platform/vel/Subscription.h"

#include <string>

#include "platform/netz/Assert.h"
#include "platform/vel/Entity.h"

namespace Vel {

namespace {
Round* top = nullptr;  // the innermost round under way; one event thread
}

Subscription::Subscription(Entity& entity, Ordinal attribute, void* object, Function function)
    : entity_(&entity),
      prev_(entity.last_),
      object_(object),
      function_(function),
      attribute_(attribute) {
    (prev_ ? prev_->next_ : entity.first_) = this;
    entity.last_ = this;
    entity.interest_ |= Entity::interestIn(attribute);
}

void Subscription::reset() {
    if (!entity_) return;
    for (Round* round = top; round; round = round->outer_) {
        if (round->next_ == this) round->next_ = this == round->end_ ? nullptr : next_;
        if (round->end_ == this) round->end_ = prev_;
    }
    (prev_ ? prev_->next_ : entity_->first_) = next_;
    (next_ ? next_->prev_ : entity_->last_) = prev_;
    if (!entity_->first_) entity_->interest_ = 0;  // else stale bits only cost a look at the list
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
    for (Round* round = top; round; round = round->outer_) {
        if (round->next_ == &other) round->next_ = this;
        if (round->end_ == &other) round->end_ = this;
    }
}

Round::Round(Entity& entity, Ordinal attribute)
    : entity_(entity), outer_(top), depth_(top ? top->depth_ + 1 : 1), attribute_(attribute) {
    if (depth_ > maxDepth) [[unlikely]]
        tooDeep();
    top = this;
}

Round::~Round() {
    top = outer_;
}

void Round::run(const void* key) {
    end_ = entity_.last_;
    for (Subscription* now = entity_.first_; now; now = next_) {
        next_ = now == end_ ? nullptr : now->next_;
        if (now->attribute_ == attribute_ || now->attribute_ == anyAttribute)
            now->function_(now->object_, key, attribute_);
    }
}

void Round::tooDeep() const {
    std::string chain = "notifications nest deeper than 64 rounds:";
    for (const Round* round = this; round; round = round->outer_) {
        const TypeDescriptor& type = round->entity_.type();
        chain.append(" ").append(type.name).append(".");
        chain.append(type.attributeName(round->attribute_));
    }
    assertionFailed(chain.c_str(), __FILE__, __LINE__);
}

void Entity::notify(Ordinal attribute, const void* key) {
    Round round(*this, attribute);
    round.run(key);
}

Entity::~Entity() {
    for (Subscription* s = first_; s; s = s->next_) s->entity_ = nullptr;
}

}  // namespace Vel

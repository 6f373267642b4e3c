// The subscriber side of notification.
//
// A Subscription is the record {object, function, attribute} itself, linked into the list of the
// entity: subscribing and unsubscribing allocate nothing and cost a few stores. It is made from a
// member function,
//
//     Subscription::to<&Reactor::handleName>(entity, Entity::nameAttr, this)
//
// and is a member of the reactor. A reactor that its owner released is not called any more, even
// while it waits for the stack to unwind. Move assignment ends the subscription assigned to. If the
// entity is destroyed first, the subscription becomes empty.
#pragma once

#include <type_traits>

#include "platform/Export.h"
#include "platform/vel/Object.h"

namespace Vel {

class Entity;
class Notification;
class Round;

using Ordinal = U16;                             // an attribute's place in its type's table
inline constexpr Ordinal anyAttribute = 0xFFFF;  // a subscription to every change of the entity

// Names an attribute of entity E; Key is void for a plain attribute, else the collection's key.
template <class E, class Key = void>
struct Attr {
    Ordinal ordinal;
};

class [[nodiscard]] VEL_EXPORT Subscription {
  public:
    using Function = void (*)(void* object, const void* key, Ordinal attribute);

    Subscription() = default;
    Subscription(Entity& entity, Ordinal attribute, void* object, Function function);

    template <auto handler, class E, class Key, class Object>
    static Subscription to(E& entity, Attr<E, Key> attr, Object* object) {
        return Subscription(entity, attr.ordinal, object, &call<handler, Key, Object>);
    }

    Subscription(Subscription&& other) noexcept { adopt(other); }
    Subscription& operator=(Subscription&& other) noexcept {
        if (this != &other) {
            reset();
            adopt(other);
        }
        return *this;
    }
    ~Subscription() { reset(); }

    void reset();
    explicit operator bool() const { return entity_ != nullptr; }

    // Calls a handler the way a notification does.
    template <auto handler, class Key, class Object>
    static void call(void* object, const void* key, Ordinal = 0) {
        auto* self = static_cast<Object*>(object);
        if constexpr (std::is_base_of_v<Vel::Object, Object>)
            if (self->gone()) return;
        if constexpr (requires { (self->*handler)(); })
            (self->*handler)();
        else
            (self->*handler)(*static_cast<const Key*>(key));
    }

  private:
    friend class Entity;
    friend class Notification;
    friend class Round;

    void adopt(Subscription& other);

    Entity* entity_ = nullptr;      // null: empty; the members below are then invalid
    Subscription* prev_ = nullptr;  // in the entity's list, in the order of subscription
    Subscription* next_ = nullptr;
    void* object_ = nullptr;
    Function function_ = nullptr;
    Ordinal attribute_ = 0;
};

}  // namespace Vel

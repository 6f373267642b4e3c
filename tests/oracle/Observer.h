// Tells of every notification of the inputs and of what is published, whatever entity it is of, and
// of the keys that an entity has when it is first seen.
#pragma once

#include <functional>
#include <map>

#include "tests/oracle/World.h"

namespace Oracle {

class Observer {
  public:
    // What changed: the entity, its attribute, and the key of a keyed attribute.
    using Function =
        std::function<void(Vel::Entity&, const Vel::Attribute&, const std::string& key)>;

    // Observes before the reactors if it is made before the root, else after them.
    Observer(const Nav::NavInputs& in, Function function);

  private:
    struct Watched {
        Observer* observer;
        Vel::Entity* entity;
        Vel::Subscription subscription;  // empty once the entity has been destroyed
    };

    void watch(Vel::Entity& entity);
    void tell(Vel::Entity& entity, const Vel::Attribute& attribute, const std::string& key);
    static void notified(void* watched, const void* key, Vel::Ordinal attribute);

    Function function_;
    std::map<const Vel::Entity*, Watched> watched_;
};

// The router's other services as part of the process, which answer inside the notification: IPsec
// establishes each connection, the resolver resolves each address by FEC 1, the hardware agent
// programs each path.
class Services {
  public:
    explicit Services(const Nav::NavInputs& in);

  private:
    bool isConfigured(const Nav::HwPathKey& key) const;
    void answer(Vel::Entity& entity, const std::string& key);

    const Nav::NavInputs& in_;
    Vel::U32 encapId_ = 100;
    Observer observer_;
};

}  // namespace Oracle

#include "tests/oracle/Observer.h"

namespace Oracle {

using Vel::Attribute;
using Vel::Entity;

Observer::Observer(const Nav::NavInputs& in, Function function) : function_(std::move(function)) {
    eachRoot(in, [&](std::string_view, Entity& entity) { watch(entity); });
}

void Observer::watch(Entity& entity) {
    Watched& watched = watched_[&entity];
    if (watched.subscription) return;
    watched = {this, &entity, entity.subscribeAll(&watched, &Observer::notified)};
    const auto& type = entity.type();
    for (size_t i = 0; i < type.count; ++i) {
        const Attribute& attribute = type.attributes[i];
        if (attribute.kind == Attribute::Kind::child)
            if (Entity* child = attribute.find(entity, "")) watch(*child);
        if (!attribute.keyed()) continue;
        for (const std::string& key : attribute.keys(entity)) tell(entity, attribute, key);
    }
}

void Observer::notified(void* object, const void* key, Vel::Ordinal ordinal) {
    auto& [observer, entity, subscription] = *static_cast<Watched*>(object);
    const Attribute& attribute = entity->type().attributes[ordinal];
    observer->tell(*entity, attribute, attribute.keyed() ? attribute.keyText(key) : "");
}

void Observer::tell(Entity& entity, const Attribute& attribute, const std::string& key) {
    if (attribute.element)
        if (Entity* element = attribute.find(entity, key)) watch(*element);
    function_(entity, attribute, key);
}

Services::Services(const Nav::NavInputs& in)
    : in_(in), observer_(in, [this](Entity& entity, const Attribute&, const std::string& key) {
          answer(entity, key);
      }) {}

bool Services::isConfigured(const Nav::HwPathKey& key) const {
    for (const auto& vrf : in_.pathConfigDir->pathConfig())
        if (const auto* entry = vrf.pathConfigEntry(key.pathKey()))
            if (entry->pathIndex() == key.pathIndex) return true;
    return false;
}

void Services::answer(Entity& entity, const std::string& key) {
    if (const auto* requests = dynamic_cast<Ipsec::Path::PathConfigDir*>(&entity)) {
        const auto connection = Vel::Codec<Ipsec::ConnectionKey>::fromKey(key);
        if (requests->ipsecPathConfig(connection)) {
            auto& status = in_.ipsecPathStatusDir->ipsecPathStatusIs(connection);
            status.encapIdIs(++encapId_);
            status.connectionStateIs(Ipsec::Path::established);
        } else {
            in_.ipsecPathStatusDir->ipsecPathStatusDel(connection);
        }
    } else if (const auto* vrf = dynamic_cast<Routing::NexthopVrfConfig*>(&entity)) {
        auto* results = in_.nexthopStatus->vrf(vrf->vrfName());
        const auto addr = Vel::Codec<Netz::IpGenAddr>::fromKey(key);
        if (!results) return;
        if (vrf->nexthopHas(addr))
            results->nexthopIs({addr, 1});
        else
            results->nexthopDel(addr);
    } else if (dynamic_cast<Routing::NexthopStatus*>(&entity)) {
        if (auto* requests = in_.nexthopConfig->vrf(L3::VrfName(key)))
            for (const auto& addr : requests->nexthop())
                answer(*requests, Vel::Codec<Netz::IpGenAddr>::key(addr));
    } else if (const auto* paths = dynamic_cast<Nav::PathConfig*>(&entity)) {
        const auto path = Vel::Codec<Nav::PathKey>::fromKey(key);
        if (const auto* entry = paths->pathConfigEntry(path)) {
            auto program = [](Nav::HwPathStatusEntry& status) {
                status.hwPathIndexIs(1);
                status.hwArpIndexIs(1);
            };
            program(in_.hwPathStatus->hwPathStatusListIs(
                {path.srcAddr, path.dstAddr, path.vrfId, entry->pathIndex()}, program));
        } else {
            for (const auto& status : in_.hwPathStatus->hwPathStatusList())
                if (status.key().pathKey() == path && !isConfigured(status.key()))
                    in_.hwPathStatus->hwPathStatusListDel(status.key());
        }
    }
}

}  // namespace Oracle

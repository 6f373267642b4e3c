#include "agent/router/RouterStatus.h"

#include <functional>

namespace Agent {

namespace {

template <class Status, class Address>
void publishInterfaces(const RouterStatus& router, Status& status, Address addressOf) {
    for (const Ip::IpIntfStatus& entry : status.ipIntfStatus())
        if (!router.interfaces.contains(entry.intfId())) status.ipIntfStatusDel(entry.intfId());
    for (const auto& [name, interface] : router.interfaces) {
        const auto write = [&, &interface = interface](Ip::IpIntfStatus& entry) {
            if (entry.vrfName() != interface.vrf) entry.activeAddrWithMaskIs({});
            entry.vrfNameIs(interface.vrf);
            entry.activeAddrWithMaskIs(std::invoke(addressOf, interface));
        };
        write(status.ipIntfStatusIs(name, write));
    }
}

}  // namespace

void RouterStatus::publish(const Nav::NavInputs& inputs) const {
    const Vel::Hold hold;
    auto& vrfs = *inputs.routingHwRouteStatus;
    for (const Routing::Hardware::VrfStatus& vrf : vrfs.vrfStatus())
        if (!vrfIds.contains(vrf.vrfName())) vrfs.vrfStatusDel(vrf.vrfName());
    for (const auto& [name, id] : vrfIds) {
        const auto write = [&, id = id](Routing::Hardware::VrfStatus& vrf) { vrf.vrfIdIs(id); };
        write(vrfs.vrfStatusIs(name, write));
    }
    publishInterfaces(*this, *inputs.ipStatusDir, &Interface::pathAddr);
    publishInterfaces(*this, *inputs.ip6StatusDir, &Interface::v6);
}

}  // namespace Agent

#include "agent/model/ForwardingConfig.h"

#include <net/if.h>

#include <algorithm>

namespace Agent {

VEL_DEFINE(Agent, ForwardingVrfConfig)
VEL_DEFINE(Agent, SiteVrfConfig)
VEL_DEFINE(Agent, SiteConfig)
VEL_DEFINE(Agent, ApplicationMatchConfig)
VEL_DEFINE(Agent, ApplicationConfig)
VEL_DEFINE(Agent, ProbeGroupConfig)
VEL_DEFINE(Agent, ProbeConfig)
VEL_DEFINE(Agent, ForwardingConfig)

ForwardingPtr makeForwarding() {
    auto config = Vel::make<ForwardingConfig>(forwardingName);
    config->probeIs("probe");
    return config;
}

std::string tunnelDevice(const ForwardingVrfConfig& vrf) {
    const std::string prefix = "nav.";
    const std::string& name = vrf.vrfName().str();
    // The kernel refuses '/', ':' and space, and replaces '%' by a number.
    const auto fits = [](char c) {
        return c > ' ' && c < 0x7f && c != '/' && c != ':' && c != '%';
    };
    if (prefix.size() + name.size() < IFNAMSIZ && std::ranges::all_of(name, fits))
        return prefix + name;
    return prefix + std::to_string(vrf.vni());
}

Netz::IpGenAddr innerAddress(const SiteConfig& site, const SiteVrfConfig& vrf) {
    return vrf.address().isZero() ? site.routerAddr() : vrf.address();
}

ProbeValues probeValues(const ProbeConfig& probe, const Vel::Name& pathGroup) {
    ProbeValues values = {probe.interval(),  probe.multiplier(), probe.window(), probe.upDelay(),
                          probe.downDelay(), probe.key(),        probe.dscp()};
    if (const ProbeGroupConfig* group = probe.group(pathGroup)) {
        values.interval = group->interval().value_or(values.interval);
        values.multiplier = group->multiplier().value_or(values.multiplier);
        values.window = group->window().value_or(values.window);
        values.upDelay = group->upDelay().value_or(values.upDelay);
        values.downDelay = group->downDelay().value_or(values.downDelay);
        values.key = group->key().value_or(values.key);
        values.dscp = group->dscp().value_or(values.dscp);
    }
    return values;
}

}  // namespace Agent

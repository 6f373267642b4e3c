// The forwarding configuration: what the overlay carries, in which segments, and how paths are
// probed. The operator writes it, the forwarding side of the Linux platform only reads it. What
// each attribute means, with units, ranges and defaults: docs/configuration-forwarding.md.
//
// A change is applied attribute by attribute, so that a subscriber may see a state in between that
// is not valid, such as one VNI in two VRFs. Act on a change in a task, when it is complete.
#pragma once

#include "agent/model/ForwardingTypes.h"
#include "platform/vel/Entity.h"

namespace Agent {

// A VRF with a segment of the overlay.
class ForwardingVrfConfig : public Vel::Entity {
    VEL_ENTITY(ForwardingVrfConfig, L3::VrfName, vrfName)
    VEL_ATTRIBUTE(Vel::U32, vni, 0)                   // required
    VEL_ATTRIBUTE(Netz::IpAddrWithMask, address, {})  // the router's own; required
    VEL_ATTRIBUTE(Vel::U32, mtu, 0)                   // bytes; 0: derived
};

// What of one VRF lies behind a site.
class SiteVrfConfig : public Vel::Entity {
    VEL_ENTITY(SiteVrfConfig, L3::VrfName, vrfName)
    VEL_SET(IpPrefix, prefix)
    VEL_ATTRIBUTE(Netz::IpGenAddr, address, {})  // use innerAddress()
};

// A remote site, by the address that path groups know it by.
class SiteConfig : public Vel::Entity {
    VEL_ENTITY(SiteConfig, Netz::IpGenAddr, routerAddr)
    VEL_COLLECTION(L3::VrfName, SiteVrfConfig, vrf)
};

// Packets that have each attribute given. An empty set leaves its attribute open.
class ApplicationMatchConfig : public Vel::Entity {
    VEL_ENTITY(ApplicationMatchConfig, Vel::U32, number)
    VEL_ATTRIBUTE(IpProtocol, protocol, {})
    VEL_SET(PortRange, sourcePort)
    VEL_SET(PortRange, destinationPort)
    VEL_SET(IpPrefix, sourcePrefix)
    VEL_SET(IpPrefix, destinationPrefix)
    VEL_SET(Dscp, dscp)
};

// The packets of an application profile: those for which one match holds.
class ApplicationConfig : public Vel::Entity {
    VEL_ENTITY(ApplicationConfig, Vel::Name, name)
    VEL_ORDERED(Vel::U32, ApplicationMatchConfig, match)
};

// How the paths of one path group are probed: an absent value is that of ProbeConfig.
class ProbeGroupConfig : public Vel::Entity {
    VEL_ENTITY(ProbeGroupConfig, Vel::Name, name)
    VEL_ATTRIBUTE(std::optional<Vel::U32>, interval, {})
    VEL_ATTRIBUTE(std::optional<Vel::U32>, multiplier, {})
    VEL_ATTRIBUTE(std::optional<Vel::U32>, window, {})
    VEL_ATTRIBUTE(std::optional<Vel::U32>, upDelay, {})
    VEL_ATTRIBUTE(std::optional<Vel::U32>, downDelay, {})
    VEL_ATTRIBUTE(std::optional<Vel::Secret>, key, {})
    VEL_ATTRIBUTE(std::optional<Dscp>, dscp, {})
};

class ProbeConfig : public Vel::Entity {
    VEL_ENTITY(ProbeConfig, Vel::Name, name)
    VEL_ATTRIBUTE(Vel::U32, interval, 100)  // ms; 0: paths are not probed
    VEL_ATTRIBUTE(Vel::U32, multiplier, 3)  // lost probes that make a path dead
    VEL_ATTRIBUTE(Vel::U32, window, 10000)  // ms, over which quality is measured
    VEL_ATTRIBUTE(Vel::U32, upDelay, 1000)  // ms that a path must be good to return
    VEL_ATTRIBUTE(Vel::U32, downDelay, 0)   // ms that it must be bad to leave
    VEL_ATTRIBUTE(Vel::Secret, key, {})     // empty: probes are not authenticated
    VEL_ATTRIBUTE(Dscp, dscp, {})           // of the probes
    VEL_COLLECTION(Vel::Name, ProbeGroupConfig, group)
};

class ForwardingConfig : public Vel::Entity {
    VEL_ENTITY(ForwardingConfig, Vel::Name, name)
    VEL_COLLECTION(L3::VrfName, ForwardingVrfConfig, vrf)
    VEL_COLLECTION(Netz::IpGenAddr, SiteConfig, site)
    VEL_COLLECTION(Vel::Name, ApplicationConfig, application)
    VEL_CHILD(ProbeConfig, probe)  // always there
};

// The entity's own name, the same in every agent, and that of its root.
inline constexpr const char* forwardingName = "forwardingConfig";

// Why an agent may refuse to take a configuration of forwarding.
inline constexpr const char* notForwarding =
    "this agent does not forward; that takes --platform linux and --forwarding FILE";

using ForwardingPtr = Vel::Ptr<ForwardingConfig>;

// One with all defaults.
ForwardingPtr makeForwarding();

// The tunnel device of a VRF: "nav." and the VRF's name, or its VNI where the name is too long for
// an interface or has characters that an interface's name cannot have. At most 15 bytes.
std::string tunnelDevice(const ForwardingVrfConfig& vrf);

// How a site's router is called inside a VRF: the configured address, or that of the site.
Netz::IpGenAddr innerAddress(const SiteConfig& site, const SiteVrfConfig& vrf);

struct ProbeValues {
    Vel::U32 interval, multiplier, window, upDelay, downDelay;  // as ProbeConfig's
    Vel::Secret key;
    Dscp dscp;

    bool operator==(const ProbeValues&) const = default;
};
// How the paths of a path group are probed.
ProbeValues probeValues(const ProbeConfig& probe, const Vel::Name& pathGroup);

}  // namespace Agent

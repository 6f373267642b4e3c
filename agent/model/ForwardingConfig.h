// The forwarding configuration: the segments, sites and applications of the overlay, and how paths
// are probed. The operator writes it; the Linux platform only reads it.
// docs/configuration-forwarding.md gives the meaning, unit, range and default of each attribute.
//
// A change is applied attribute by attribute, so a subscriber may see an invalid intermediate
// state, such as one VNI in two VRFs. React to a change in a task, when it is complete.
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

// The prefixes of one VRF behind a site.
class SiteVrfConfig : public Vel::Entity {
    VEL_ENTITY(SiteVrfConfig, L3::VrfName, vrfName)
    VEL_SET(IpPrefix, prefix)
    VEL_ATTRIBUTE(Netz::IpGenAddr, address, {})  // use innerAddress()
};

// A remote site, identified by its router address in path groups.
class SiteConfig : public Vel::Entity {
    VEL_ENTITY(SiteConfig, Netz::IpGenAddr, routerAddr)
    VEL_COLLECTION(L3::VrfName, SiteVrfConfig, vrf)
};

// Packets that fit every attribute specified. An empty set matches any value.
class ApplicationMatchConfig : public Vel::Entity {
    VEL_ENTITY(ApplicationMatchConfig, Vel::U32, number)
    VEL_ATTRIBUTE(IpProtocol, protocol, {})
    VEL_SET(PortRange, sourcePort)
    VEL_SET(PortRange, destinationPort)
    VEL_SET(IpPrefix, sourcePrefix)
    VEL_SET(IpPrefix, destinationPrefix)
    VEL_SET(Dscp, dscp)
};

// The packets of an application profile: those that fit at least one match.
class ApplicationConfig : public Vel::Entity {
    VEL_ENTITY(ApplicationConfig, Vel::Name, name)
    VEL_ORDERED(Vel::U32, ApplicationMatchConfig, match)
};

// How the paths of one path group are probed; an absent value is inherited from ProbeConfig.
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

// UDP port of probes, of the side that answers them (RFC 8762, 4.1).
inline constexpr Vel::U16 probePort = 862;

class ProbeConfig : public Vel::Entity {
    VEL_ENTITY(ProbeConfig, Vel::Name, name)
    VEL_ATTRIBUTE(Vel::U32, interval, 100)       // ms; 0: paths are not probed
    VEL_ATTRIBUTE(Vel::U32, multiplier, 3)       // lost probes that make a path dead
    VEL_ATTRIBUTE(Vel::U32, window, 10000)       // ms, over which quality is measured
    VEL_ATTRIBUTE(Vel::U32, upDelay, 1000)       // ms that a path must be good to return
    VEL_ATTRIBUTE(Vel::U32, downDelay, 0)        // ms that it must be bad to leave
    VEL_ATTRIBUTE(Vel::Secret, key, {})          // empty: probes are not authenticated
    VEL_ATTRIBUTE(Dscp, dscp, {})                // of the probes
    VEL_ATTRIBUTE(bool, answerStrangers, false)  // answer others than the ends of paths, too
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

// The error if a forwarding configuration is given to an agent that does not forward.
inline constexpr const char* notForwarding =
    "this agent does not forward; --platform linux and --forwarding FILE are required";

using ForwardingPtr = Vel::Ptr<ForwardingConfig>;

// A configuration with all defaults.
ForwardingPtr makeForwarding();

// The name of a VRF's tunnel device: "nav." and the VRF's name, or the VNI if that would be too
// long or contain characters that an interface name cannot have. At most 15 bytes.
std::string tunnelDevice(const ForwardingVrfConfig& vrf);

// The address of a site's router inside a VRF: the configured address, else that of the site.
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

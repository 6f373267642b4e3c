#include <map>
#include <set>

#include "agent/model/Checks.h"
#include "agent/model/Config.h"

namespace Agent {

using Netz::IpAddrWithMask;
using Netz::IpGenAddr;

namespace {

constexpr Vel::U32 maxVni = 0xffffff;   // RFC 7348: 24 bits
constexpr Vel::U32 minMtu = 576;        // RFC 791: every IPv4 host accepts it
constexpr Vel::U32 minMtuOfIp6 = 1280;  // RFC 8200
constexpr Vel::U32 maxMtu = 65535;      // the length field of IPv4
constexpr Vel::U32 hour = 3600000;      // ms

Path wholeForwarding() {
    return placeOf<ForwardingConfig>(forwardingName);
}

IpPrefix hostOf(const IpGenAddr& addr) {
    return IpPrefix::of(addr, static_cast<uint8_t>(addr.bits()));
}

const char* familyOf(const IpGenAddr& addr) {
    return addr.isV4() ? "IPv4" : "IPv6";
}

void checkReachable(const IpGenAddr& addr, const Path& place, const char* what) {
    if (const char* kind = unusableKind(addr))
        throw TreeError(place, std::string(what) + " cannot be " + kind + " address");
}

void checkRange(const Path& place, const char* attribute, Vel::U32 value, Vel::U32 least,
                Vel::U32 most, const char* what, bool orZero = false) {
    if ((value >= least && value <= most) || (orZero && value == 0)) return;
    throw TreeError(place.at(attribute), "expected " + std::string(what) + " from " +
                                             std::to_string(least) + " to " + std::to_string(most) +
                                             (orZero ? ", or 0" : "") + ", got " +
                                             std::to_string(value));
}

// The router's own address in a VRF.
void checkOverlayAddress(const IpAddrWithMask& own, const Path& place) {
    if (own == IpAddrWithMask())
        throw TreeError(place, "required: the router's address in this VRF, such as 10.255.0.1/24");
    checkReachable(own.addr, place, "the router's address");
    if (own.prefixLength == 0) throw TreeError(place, "a prefix length above 0 is required");
    const auto hostBits = own.addr.bits() - own.prefixLength;
    if (own.addr.isV6() || hostBits < 2) return;
    const uint32_t mask = (uint32_t{1} << hostBits) - 1;
    uint32_t host = 0;
    for (size_t i = 0; i < 4; ++i) host = host << 8 | own.addr.data()[i];
    host &= mask;
    if (host == 0 || host == mask)
        throw TreeError(place, own.stringValue() + " is the " +
                                   (host == 0 ? "network address" : "network's broadcast address") +
                                   "; a host address is required");
}

// Whether IPv6 packets are carried in a VRF.
bool carriesIp6(const ForwardingConfig& forwarding, const ForwardingVrfConfig& vrf) {
    if (vrf.address().addr.isV6()) return true;
    for (const SiteConfig& site : forwarding.site())
        if (const SiteVrfConfig* behind = site.vrf(vrf.vrfName()))
            for (const IpPrefix& prefix : behind->prefix())
                if (prefix.addr.isV6()) return true;
    return false;
}

void checkSegments(const ForwardingConfig& forwarding) {
    std::map<Vel::U32, std::string> vrfOfVni;
    std::map<std::string, std::string> vrfOfDevice;
    for (const ForwardingVrfConfig& vrf : forwarding.vrf()) {
        const std::string& name = vrf.vrfName().str();
        const Path place = wholeForwarding().at("vrf", name);
        if (vrf.vni() == 0)
            throw TreeError(place.at("vni"), "required: the VRF's segment, from 1 to 16777215");
        checkRange(place, "vni", vrf.vni(), 1, maxVni, "a segment");
        if (const auto [first, isNew] = vrfOfVni.emplace(vrf.vni(), name); !isNew)
            throw TreeError(place.at("vni"), std::to_string(vrf.vni()) +
                                                 " is already the segment of VRF \"" +
                                                 first->second + '"');
        if (const auto [first, isNew] = vrfOfDevice.emplace(tunnelDevice(vrf), name); !isNew)
            throw TreeError(place, "its tunnel device " + tunnelDevice(vrf) +
                                       " is already that of VRF \"" + first->second +
                                       "\"; another VRF name or VNI is required");
        checkOverlayAddress(vrf.address(), place.at("address"));
        const bool ip6 = carriesIp6(forwarding, vrf);
        checkRange(place, "mtu", vrf.mtu(), ip6 ? minMtuOfIp6 : minMtu, maxMtu,
                   ip6 ? "bytes (the VRF carries IPv6)" : "bytes", true);
    }
}

// Checks that each network belongs to one site, or to this router, in each VRF.
class SiteChecks {
  public:
    explicit SiteChecks(const ForwardingConfig& forwarding) : forwarding_(forwarding) {
        for (const ForwardingVrfConfig& vrf : forwarding.vrf()) {
            const IpAddrWithMask& own = vrf.address();
            Networks& networks = networksOf_[vrf.vrfName()];
            networks[hostOf(own.addr)] = {{}, "the router's own address"};
            networks.insert(
                {IpPrefix::of(own.addr, own.prefixLength), {{}, "the overlay's network"}});
        }
    }

    // Claims all router addresses before any prefix.
    void run() {
        for (const SiteConfig& site : forwarding_.site()) {
            const Path place = wholeForwarding().at("site", site.routerAddr().stringValue());
            checkReachable(site.routerAddr(), place, "the address of a site's router");
            for (const SiteVrfConfig& vrf : site.vrf())
                checkAddress(site, vrf, place.at("vrf", vrf.vrfName().str()));
        }
        for (const SiteConfig& site : forwarding_.site())
            for (const SiteVrfConfig& vrf : site.vrf()) checkPrefixes(site, vrf);
    }

  private:
    struct Holder {
        IpGenAddr site;  // zero: this router
        std::string what;
    };
    using Networks = std::map<IpPrefix, Holder>;

    void checkAddress(const SiteConfig& site, const SiteVrfConfig& vrf, const Path& place) {
        const ForwardingVrfConfig* segment = forwarding_.vrf(vrf.vrfName());
        if (!segment)
            throw TreeError(place, "this VRF has no segment; " +
                                       wholeForwarding().at("vrf", vrf.vrfName().str()).text() +
                                       " is required");
        const IpGenAddr inner = innerAddress(site, vrf);
        const IpGenAddr& own = segment->address().addr;
        const Path at = place.at("address");
        checkReachable(inner, at, "the address of a site's router");
        if (inner.isV4() != own.isV4())
            throw TreeError(at, "expected an " + std::string(familyOf(own)) + " address, like " +
                                    own.stringValue() + " of this VRF, got " + inner.stringValue());
        claim(hostOf(inner), site, vrf, at, "the router address");
    }

    void checkPrefixes(const SiteConfig& site, const SiteVrfConfig& vrf) {
        const Path place = wholeForwarding()
                               .at("site", site.routerAddr().stringValue())
                               .at("vrf", vrf.vrfName().str());
        for (const IpPrefix& prefix : vrf.prefix()) {
            const Path at = place.at("prefix", prefix.stringValue());
            if (prefix.prefixLength > 0) checkReachable(prefix.addr, at, "the prefix of a site");
            claim(prefix, site, vrf, at, "a prefix");
        }
    }

    void claim(const IpPrefix& network, const SiteConfig& site, const SiteVrfConfig& vrf,
               const Path& place, const std::string& what) {
        const auto [first, isNew] = networksOf_[vrf.vrfName()].insert(
            {network, {site.routerAddr(), what + " of site " + site.routerAddr().stringValue()}});
        if (!isNew && first->second.site != site.routerAddr())
            throw TreeError(place, network.stringValue() + " is already " + first->second.what +
                                       " in this VRF");
    }

    const ForwardingConfig& forwarding_;
    std::map<L3::VrfName, Networks> networksOf_;
};

template <class Prefixes>
bool hasFamilyOf(const IpPrefix& prefix, const Prefixes& prefixes) {
    for (const IpPrefix& each : prefixes)
        if (each.addr.isV4() == prefix.addr.isV4()) return true;
    return prefixes.empty();
}

// Refuses ports or prefixes that no packet can have together with the rest of the match.
void checkMatch(const ApplicationMatchConfig& match, const Path& place) {
    const auto checkPorts = [&](const char* attribute, bool given) {
        if (given && !match.protocol().hasPorts())
            throw TreeError(place.at(attribute),
                            "protocol " + match.protocol().stringValue() +
                                " has no ports; tcp, udp, sctp, dccp, udplite or any is required");
    };
    const auto checkPrefixes = [&](const char* attribute, const auto& prefixes, const auto& others,
                                   const std::string& other) {
        for (const IpPrefix& prefix : prefixes)
            if (!hasFamilyOf(prefix, others))
                throw TreeError(
                    place.at(attribute, prefix.stringValue()),
                    "this match has no " + other + " prefix of family " + familyOf(prefix.addr));
    };
    checkPorts("sourcePort", !match.sourcePort().empty());
    checkPorts("destinationPort", !match.destinationPort().empty());
    checkPrefixes("sourcePrefix", match.sourcePrefix(), match.destinationPrefix(), "destination");
    checkPrefixes("destinationPrefix", match.destinationPrefix(), match.sourcePrefix(), "source");
}

void checkProbe(const ProbeValues& values, const Path& place) {
    checkRange(place, "interval", values.interval, 10, 60000, "milliseconds", true);
    checkRange(place, "multiplier", values.multiplier, 1, 100, "a count");
    checkRange(place, "window", values.window, std::max<Vel::U32>(values.interval, 1), hour,
               "milliseconds (at least the interval)");
    checkRange(place, "upDelay", values.upDelay, 0, hour, "milliseconds");
    checkRange(place, "downDelay", values.downDelay, 0, hour, "milliseconds");
}

}  // namespace

void validateForwarding(const ForwardingConfig& forwarding) {
    checkNames(forwarding, wholeForwarding());
    checkSegments(forwarding);
    SiteChecks(forwarding).run();
    for (const ApplicationConfig& application : forwarding.application())
        for (const ApplicationMatchConfig& match : application.match())
            checkMatch(match, wholeForwarding()
                                  .at("application", application.name())
                                  .at("match", std::to_string(match.number())));
    const ProbeConfig& probe = *forwarding.probe();
    const Path place = wholeForwarding().at("probe");
    checkProbe(probeValues(probe, {}), place);
    for (const ProbeGroupConfig& group : probe.group())
        checkProbe(probeValues(probe, group.name()), place.at("group", group.name()));
}

namespace {

void warnOfApplications(std::vector<std::string>& warnings, const Nav::NavCliConfig& config,
                        const ForwardingConfig& forwarding) {
    const auto described = [&](const std::string& name) { return forwarding.application(name); };
    std::set<std::string> named;
    for (const Nav::PolicyConfig& policy : config.policyConfig())
        for (const auto& rule : policy.appProfilePolicyRuleList()) {
            named.insert(rule.appProfileName());
            warnUnlessConfigured(
                warnings,
                "rule " + std::to_string(rule.ruleKey()) + " of policy \"" + policy.name() + '"',
                "application", rule.appProfileName(), described);
        }
    for (const ApplicationConfig& application : forwarding.application()) {
        const std::string who = "application \"" + application.name() + '"';
        if (!named.contains(application.name()))
            warnings.push_back(who + " is not named by any policy");
        if (application.match().empty())
            warnings.push_back(who + " has no match, so it has no packets");
    }
}

bool isSite(const Nav::NavCliConfig& config, const IpGenAddr& addr) {
    for (const Nav::PathGroupConfig& group : config.pathGroupConfig())
        if (group.remoteViaConfig(addr)) return true;
    return false;
}

}  // namespace

std::vector<std::string> forwardingWarnings(const Nav::NavCliConfig& config,
                                            const ForwardingConfig& forwarding) {
    std::vector<std::string> warnings;
    warnOfApplications(warnings, config, forwarding);
    for (const Nav::VrfConfig& vrf : config.vrfConfig())
        if (!vrf.policyName().empty() && !forwarding.vrf(vrf.vrfName()))
            warnings.push_back("VRF \"" + vrf.vrfName().str() +
                               "\" has a policy, but no segment, so its packets are not forwarded");
    for (const ForwardingVrfConfig& vrf : forwarding.vrf()) {
        const Nav::VrfConfig* bound = config.vrfConfig(vrf.vrfName());
        if (!bound || bound->policyName().empty())
            warnings.push_back("VRF \"" + vrf.vrfName().str() +
                               "\" has a segment, but no policy, so its packets take any path");
    }
    for (const SiteConfig& site : forwarding.site())
        if (!isSite(config, site.routerAddr()))
            warnings.push_back("site " + site.routerAddr().stringValue() +
                               " is not in any path group, so it has no paths");
    const auto group = [&](const std::string& name) { return config.pathGroupConfig(name); };
    for (const ProbeGroupConfig& each : forwarding.probe()->group())
        warnUnlessConfigured(warnings, "the probe configuration", "path group", each.name(), group);
    if (config.udpPortConfig() == probePort && forwarding.probe()->interval() > 0)
        warnings.push_back("udpPortConfig is 862, the port of probes");
    return warnings;
}

}  // namespace Agent

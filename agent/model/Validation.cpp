#include <map>

#include "agent/model/Checks.h"
#include "agent/model/Config.h"
#include "agent/model/LbDemand.h"
#include "nav/config/NavConstants.h"

namespace Agent {

using Nav::NavCliConfig;
using Nav::NavConstants;

namespace {

constexpr Vel::U32 maxLossRate = 100;  // percent

Path wholeConfig() {
    return placeOf<NavCliConfig>(configName);
}

// The number of destinations of a group.
size_t checkDestinations(const Nav::PathGroupConfig& group, const Path& place) {
    std::map<Netz::IpGenAddr, Netz::IpGenAddr> siteOf;
    for (const Nav::RemoteViaConfig& site : group.remoteViaConfig()) {
        const std::string siteText = site.remoteAddr().stringValue();
        for (const Netz::IpGenAddr& destination : site.remoteVia()) {
            const Path at =
                place.at("remoteViaConfig", siteText).at("remoteVia", destination.stringValue());
            if (const char* kind = unusableKind(destination))
                throw TreeError(at, std::string("a destination cannot be ") + kind + " address");
            const auto [first, isNew] = siteOf.emplace(destination, site.remoteAddr());
            if (!isNew)
                throw TreeError(at, "already a destination of site " + first->second.stringValue() +
                                        "; a destination belongs to one site of a path group");
        }
    }
    return siteOf.size();
}

void checkPathGroups(const NavCliConfig& config) {
    std::map<Netz::IntfId, std::string> groupOf;
    size_t paths = 0;
    for (const Nav::PathGroupConfig& group : config.pathGroupConfig()) {
        const Path place = wholeConfig().at("pathGroupConfig", group.name());
        size_t interfaces = 0;
        for (const Netz::IntfId& intf : group.localIntf()) {
            ++interfaces;
            const auto [first, isNew] = groupOf.emplace(intf, group.name());
            if (!isNew)
                throw TreeError(place.at("localIntf", intf.stringValue()),
                                "already in path group \"" + first->second +
                                    "\"; an interface belongs to one path group");
        }
        paths += interfaces * checkDestinations(group, place);
    }
    if (paths > NavConstants::maxPathIndex)
        throw TreeError(wholeConfig().at("pathGroupConfig"),
                        std::to_string(paths) + " paths are configured; the maximum is " +
                            std::to_string(NavConstants::maxPathIndex));
}

void checkPolicies(const NavCliConfig& config) {
    for (const Nav::PolicyConfig& policy : config.policyConfig())
        for (const auto& rule : policy.appProfilePolicyRuleList())
            if (rule.ruleKey() == NavConstants::defaultRuleKey)
                throw TreeError(wholeConfig()
                                    .at("policyConfig", policy.name())
                                    .at("appProfilePolicyRuleList", std::to_string(rule.ruleKey())),
                                "this key is reserved for the default rule");
    for (const Nav::LoadBalanceProfile& profile : config.loadBalanceProfile())
        if (profile.lossRate() > maxLossRate)
            throw TreeError(
                wholeConfig().at("loadBalanceProfile", profile.profileName()).at("lossRate"),
                "expected a percentage from 0 to 100, got " + std::to_string(profile.lossRate()));
}

}  // namespace

void validateConfig(const NavCliConfig& config) {
    checkNames(config, wholeConfig());
    checkPathGroups(config);
    checkPolicies(config);
    if (!fits(lbDemand({&config})))
        throw TreeError(wholeConfig().at("vrfConfig"),
                        "more load-balance ids may be required than the maximum of " +
                            std::to_string(NavConstants::maxLbIndex));
}

namespace {

// An interface without an address may get one of either family, so its group causes no warning.
void warnOfFamilies(std::vector<std::string>& warnings, const Nav::PathGroupConfig& group,
                    const Ip::Status& interfaces) {
    bool v4 = false, v6 = false;
    for (const Netz::IntfId& intf : group.localIntf()) {
        const Ip::IpIntfStatus* status = interfaces.ipIntfStatus(intf);
        if (!status || status->activeAddrWithMask().addr.isZero()) return;
        (status->activeAddrWithMask().addr.isV4() ? v4 : v6) = true;
    }
    if (v4 == v6) return;
    for (const Nav::RemoteViaConfig& site : group.remoteViaConfig())
        for (const Netz::IpGenAddr& destination : site.remoteVia())
            if (destination.isV4() != v4)
                warnings.push_back("destination " + destination.stringValue() + " of site " +
                                   site.remoteAddr().stringValue() + " is an " +
                                   (v4 ? "IPv6" : "IPv4") + " address, but path group \"" +
                                   group.name() + "\" has only " + (v4 ? "IPv4" : "IPv6") +
                                   " interfaces");
}

}  // namespace

std::vector<std::string> configWarnings(const NavCliConfig& config, const Ip::Status* interfaces) {
    std::vector<std::string> warnings;
    const auto group = [&](const std::string& name) { return config.pathGroupConfig(name); };
    const auto policy = [&](const std::string& name) { return config.policyConfig(name); };
    const auto profile = [&](const std::string& name) { return config.loadBalanceProfile(name); };
    if (interfaces)
        for (const Nav::PathGroupConfig& each : config.pathGroupConfig())
            warnOfFamilies(warnings, each, *interfaces);
    for (const Nav::LoadBalanceProfile& each : config.loadBalanceProfile())
        for (const auto& [name, priority] : each.pathGroupPriority())
            warnUnlessConfigured(warnings, "load-balance profile \"" + each.profileName() + "\"",
                                 "path group", name, group);
    for (const Nav::PolicyConfig& each : config.policyConfig()) {
        const std::string who = "policy \"" + each.name() + "\"";
        for (const auto& rule : each.appProfilePolicyRuleList())
            warnUnlessConfigured(warnings, "rule " + std::to_string(rule.ruleKey()) + " of " + who,
                                 "load-balance profile", rule.lbGrpName(), profile);
        warnUnlessConfigured(warnings, "the default rule of " + who, "load-balance profile",
                             each.defaultLbGrpName(), profile);
    }
    for (const Nav::VrfConfig& each : config.vrfConfig())
        warnUnlessConfigured(warnings, "VRF \"" + each.vrfName().str() + "\"", "policy",
                             each.policyName(), policy);
    return warnings;
}

}  // namespace Agent

#include "agent/model/Config.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "agent/model/DatumJson.h"
#include "agent/model/Tree.h"
#include "nav/config/NavConstants.h"

namespace Agent {

using Nav::NavCliConfig;
using Nav::NavConstants;
using Vel::Attribute;
using Vel::Entity;
using Kind = Vel::Attribute::Kind;
using Place = Json::json_pointer;

namespace {

// Which load-balance ids a configuration can need: by VRF, the pairs of site and application id.
// Nothing here grows much beyond the limit: a set stops one above it, and so does the whole.
using LbKeys = std::map<L3::VrfName, std::set<std::pair<Netz::IpGenAddr, Vel::U32>>>;

bool full(size_t size) {
    return size > NavConstants::maxLbIndex;
}

size_t count(const LbKeys& keys) {
    size_t sum = 0;
    for (const auto& [vrf, own] : keys) sum += own.size();
    return sum;
}

std::set<Netz::IpGenAddr> sitesOf(const NavCliConfig& config,
                                  const Nav::LoadBalanceProfile& profile) {
    std::set<Netz::IpGenAddr> sites;
    for (const auto& [name, priority] : profile.pathGroupPriority()) {
        const Nav::PathGroupConfig* group = config.pathGroupConfig(name);
        if (!group) continue;
        for (const Nav::RemoteViaConfig& site : group->remoteViaConfig()) {
            sites.insert(site.remoteAddr());
            if (full(sites.size())) return sites;
        }
    }
    return sites;
}

LbKeys lbKeys(const NavCliConfig& config) {
    std::map<std::string, std::set<Netz::IpGenAddr>> sites;  // by profile
    for (const Nav::LoadBalanceProfile& profile : config.loadBalanceProfile())
        sites[profile.profileName()] = sitesOf(config, profile);

    std::map<std::string, LbKeys::mapped_type> keys;  // by policy
    for (const Nav::PolicyConfig& policy : config.policyConfig()) {
        auto& own = keys[policy.name()];
        auto add = [&](Vel::U32 application, const std::string& profile) {
            for (const Netz::IpGenAddr& site : sites[profile])
                if (!full(own.size())) own.insert({site, application});
        };
        for (const Nav::AppProfilePolicyRuleConfig& rule : policy.appProfilePolicyRuleList())
            add(rule.appProfileId(), rule.lbGrpName());
        if (policy.defaultRuleCfgd()) add(0, policy.defaultLbGrpName());
    }

    LbKeys all;
    size_t sum = 0;
    for (const Nav::VrfConfig& vrf : config.vrfConfig()) {
        const auto found = keys.find(vrf.policyName());
        if (found == keys.end() || full(sum)) continue;
        all[vrf.vrfName()] = found->second;
        sum += found->second.size();
    }
    return all;
}

// What refers to a thing by name, and the thing's name if it is not there.
template <class Collection>
void warnUnlessThere(std::vector<std::string>& warnings, const std::string& who,
                     const std::string& kind, const std::string& name, const Collection& there) {
    if (!name.empty() && !there(name))
        warnings.push_back(who + " names " + kind + " \"" + name + "\", which is not there");
}

// Walks two entities of one type and takes out of `to` what `from` does not have; the later parts
// of a configuration refer to the earlier ones, so they go first.
void removeSurplus(Entity& to, const Entity& from) {
    const Vel::TypeDescriptor& type = to.type();
    for (size_t i = type.count; i-- > 0;) {
        const Attribute& a = type.attributes[i];
        if (!a.keyed()) continue;
        for (const std::string& key : a.keys(to)) {
            if (a.kind == Kind::collection) {
                const Entity* wanted = a.find(from, key);
                Entity* present = a.find(to, key);
                wanted&& present ? removeSurplus(*present, *wanted) : void(a.eraseAt(to, key));
            } else if (!a.getAt(from, key)) {
                a.eraseAt(to, key);
            }
        }
    }
}

// Sets and adds what `from` has; setters pass over what is equal already.
void addMissing(Entity& to, const Entity& from) {
    const Vel::TypeDescriptor& type = to.type();
    for (size_t i = 0; i < type.count; ++i) {
        const Attribute& a = type.attributes[i];
        if (a.kind == Kind::plain) a.set(to, a.get(from));
        if (!a.keyed()) continue;
        for (const std::string& key : a.keys(from)) {
            if (a.kind != Kind::collection) {
                a.setAt(to, key, *a.getAt(from, key));
                continue;
            }
            const Entity& wanted = *a.find(from, key);
            if (Entity* present = a.find(to, key))
                addMissing(*present, wanted);
            else
                a.create(to, key, [&](Entity& made) { addMissing(made, wanted); });
        }
    }
}

// Raises the wanted version where reactors would otherwise not see a finished change.
void settleVersion(const Nav::PolicyConfig& running, Nav::PolicyConfig& wanted) {
    const Vel::U32 given = wanted.configVersion(), current = running.configVersion();
    wanted.configVersionIs(current);
    const bool changed = toDatum(wanted) != toDatum(running);
    if (given > current)
        wanted.configVersionIs(given);
    else if (changed)
        wanted.configVersionInc(1);
}

}  // namespace

ConfigPtr readConfig(const Json& json) {
    auto config = Vel::make<NavCliConfig>(configName);
    assignMembers(*config, json);
    validateConfig(*config);
    return config;
}

ConfigPtr readConfigText(const std::string& text) {
    try {
        return readConfig(parseJson(text));
    } catch (const PlacedError& error) {
        throw JsonError("line " + std::to_string(lineOf(text, error.place())) + ": " +
                        error.what());
    }
}

ConfigPtr copyConfig(const NavCliConfig& config) {
    auto copy = Vel::make<NavCliConfig>(config.name());
    addMissing(*copy, config);
    return copy;
}

void validateConfig(const NavCliConfig& config) {
    std::map<Netz::IntfId, std::string> groupOf;
    size_t paths = 0;
    for (const Nav::PathGroupConfig& group : config.pathGroupConfig()) {
        const Place place = Place("/pathGroupConfig") / group.name();
        size_t interfaces = 0;
        for (const Netz::IntfId& intf : group.localIntf()) {
            const auto [first, fresh] = groupOf.emplace(intf, group.name());
            if (!fresh)
                throw PlacedError(
                    place / "localIntf" / interfaces,
                    intf.stringValue() + " is in path group \"" + first->second + "\" already");
            ++interfaces;
        }
        std::map<Netz::IpGenAddr, Netz::IpGenAddr> siteOf;
        for (const Nav::RemoteViaConfig& site : group.remoteViaConfig()) {
            size_t index = 0;
            for (const Netz::IpGenAddr& destination : site.remoteVia()) {
                const auto [first, fresh] = siteOf.emplace(destination, site.remoteAddr());
                if (!fresh)
                    throw PlacedError(place / "remoteViaConfig" / site.remoteAddr().stringValue() /
                                          "remoteVia" / index,
                                      destination.stringValue() + " is a destination of site " +
                                          first->second.stringValue() + " already");
                ++index;
            }
        }
        paths += interfaces * siteOf.size();
    }
    if (paths > NavConstants::maxPathIndex)
        throw PlacedError(Place("/pathGroupConfig"),
                          "this needs " + std::to_string(paths) + " paths, there are at most " +
                              std::to_string(NavConstants::maxPathIndex));
    if (full(count(lbKeys(config))))
        throw PlacedError(Place("/vrfConfig"), "this can need more load-balance ids than the " +
                                                   std::to_string(NavConstants::maxLbIndex) +
                                                   " there are");
}

std::vector<std::string> configWarnings(const NavCliConfig& config) {
    std::vector<std::string> warnings;
    auto policy = [&](const std::string& name) { return config.policyConfig(name); };
    auto profile = [&](const std::string& name) { return config.loadBalanceProfile(name); };
    for (const Nav::PolicyConfig& each : config.policyConfig()) {
        const std::string who = "policy \"" + each.name() + "\"";
        for (const auto& rule : each.appProfilePolicyRuleList())
            warnUnlessThere(warnings, "rule " + std::to_string(rule.ruleKey()) + " of " + who,
                            "load-balance profile", rule.lbGrpName(), profile);
        warnUnlessThere(warnings, "the default rule of " + who, "load-balance profile",
                        each.defaultLbGrpName(), profile);
    }
    for (const Nav::VrfConfig& each : config.vrfConfig())
        warnUnlessThere(warnings, "VRF \"" + each.vrfName().str() + "\"", "policy",
                        each.policyName(), policy);
    return warnings;
}

void applyConfig(NavCliConfig& running, ConfigPtr wanted) {
    Vel::Hold hold;
    const bool on = wanted->navConfigured();
    if (!on) running.navConfiguredIs(false);
    wanted->navConfiguredIs(running.navConfigured());

    for (Nav::PolicyConfig& policy : wanted->policyConfig())
        if (const auto* present = running.policyConfig(policy.name()))
            settleVersion(*present, policy);

    const LbKeys before = lbKeys(running), after = lbKeys(*wanted);
    std::vector<L3::VrfName> givingUp;
    size_t peak = count(before);
    for (const auto& [vrf, keys] : after) {
        const auto own = before.find(vrf);
        for (const auto& key : keys) peak += own == before.end() || !own->second.count(key);
    }
    for (const auto& [vrf, keys] : before) {
        const auto left = after.find(vrf);
        if (left == after.end() ||
            !std::includes(left->second.begin(), left->second.end(), keys.begin(), keys.end()))
            givingUp.push_back(vrf);
    }
    if (peak > NavConstants::maxLbIndex)
        for (const L3::VrfName& vrf : givingUp) running.vrfConfigDel(vrf);

    removeSurplus(running, *wanted);
    addMissing(running, *wanted);
    running.navConfiguredIs(on);
}

}  // namespace Agent

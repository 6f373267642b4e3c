#include "tests/oracle/State.h"

namespace Oracle {

using Vel::Attribute;
using Vel::Datum;
using Vel::Entity;

namespace {

template <class T, class Walk>
std::set<T> setOf(const Walk& walk) {
    std::set<T> all;
    for (const auto& item : walk) all.insert(item);
    return all;
}
template <class K, class V, class Walk>
std::map<K, V> mapOf(const Walk& walk) {
    std::map<K, V> all;
    for (const auto& [key, value] : walk) all.emplace(key, value);
    return all;
}

Group groupOf(const Nav::PathGroupConfig& config) {
    Group group{setOf<IntfId>(config.localIntf()), {}, config.ipsecProfile()};
    for (const auto& site : config.remoteViaConfig())
        group.sites[site.remoteAddr()] = setOf<IpGenAddr>(site.remoteVia());
    return group;
}

Policy policyOf(const Nav::PolicyConfig& config) {
    Policy policy{{}, config.defaultRuleCfgd(), config.defaultLbGrpName(), config.configVersion()};
    for (const auto& rule : config.appProfilePolicyRuleList())
        policy.rules[rule.ruleKey()] = {rule.appProfileId(), rule.appProfileName(),
                                        rule.lbGrpName()};
    return policy;
}

void copyConfig(const Nav::NavCliConfig& config, Inputs& out) {
    out.configured = config.navConfigured();
    for (const auto& group : config.pathGroupConfig()) out.groups[group.name()] = groupOf(group);
    for (const auto& policy : config.policyConfig()) out.policies[policy.name()] = policyOf(policy);
    for (const auto& profile : config.loadBalanceProfile())
        out.profiles[profile.profileName()] = {
            mapOf<String, U32>(profile.pathGroupPriority()),
            {profile.latency(), profile.jitter(), profile.lossRate()}};
    for (const auto& vrf : config.vrfConfig()) out.bindings[vrf.vrfName()] = vrf.policyName();
}

template <class Table>
std::map<U64, std::vector<Shard::Fib::Via>> fecsOf(const Table& table) {
    std::map<U64, std::vector<Shard::Fib::Via>> fecs;
    for (const auto& [id, fec] : table.fec()) fecs[id] = fec.vias();
    return fecs;
}

}  // namespace

Inputs inputsOf(const Nav::NavInputs& in) {
    Inputs out;
    copyConfig(*in.cliConfig, out);
    for (const auto& intf : in.ipStatusDir->ipIntfStatus())
        out.interfaces[intf.intfId()] = {intf.activeAddrWithMask().addr, intf.vrfName()};
    for (const auto& intf : in.ip6StatusDir->ipIntfStatus())
        out.interfaces6[intf.intfId()] = {intf.activeAddrWithMask().addr, intf.vrfName()};
    for (const auto& vrf : in.routingHwRouteStatus->vrfStatus())
        out.vrfIds[vrf.vrfName()] = vrf.vrfId();
    for (const auto& vrf : in.nexthopStatus->vrf()) {
        auto& results = out.results[vrf.vrfName()];
        for (const auto& result : vrf.nexthop()) results[result.addr] = result.fecId;
    }
    out.fecs = fecsOf(*in.forwardingStatus);
    out.fecs6 = fecsOf(*in.forwarding6Status);
    for (const auto& connection : in.ipsecPathStatusDir->ipsecPathStatus())
        out.connections[connection.key()] = {connection.connectionState(), connection.encapId()};
    for (const auto& path : in.hwPathStatus->hwPathStatusList())
        out.hardware[path.key()] = path.hwPathIndex() != 0 && path.hwArpIndex() != 0;
    return out;
}

void flatten(const Entity& entity, const std::string& place, Flat& out) {
    out[place];
    const auto& type = entity.type();
    for (size_t i = 0; i < type.count; ++i) {
        const Attribute& a = type.attributes[i];
        const std::string at = place + "/" + std::string(a.name);
        if (a.kind == Attribute::Kind::plain) out[at] = json(a.get(entity));
        if (a.kind == Attribute::Kind::child)
            if (const Entity* child = a.find(entity, "")) flatten(*child, at, out);
        if (a.kind == Attribute::Kind::set)
            for (const std::string& key : a.keys(entity)) out[at + "[" + key + "]"];
        if (a.kind == Attribute::Kind::collection)
            for (const std::string& key : a.keys(entity))
                flatten(*a.find(entity, key), at + "[" + key + "]", out);
        if (a.kind == Attribute::Kind::map || a.kind == Attribute::Kind::values) {
            const Datum all = a.get(entity);
            for (const auto& [key, value] : *all.as<Datum::Members>())
                out[at + "[" + key + "]"] = json(value);
        }
    }
}

bool isOpen(const std::string& place) {
    static const std::set<std::string> open{"/pathConfigDir",
                                            "/pathConfigDir/pathConfig",
                                            "/navStatusDir",
                                            "/navStatusDir/navConfigured",
                                            "/navStatusDir/navVrfEnabled",
                                            "/navStatusDir/navPortStatus",
                                            "/navStatusDir/navPathStatusDir",
                                            "/navStatusDir/navPathStatusDir/pathStatus",
                                            "/navStatusDir/navLbProfileStatus",
                                            "/siteGroupStatus",
                                            "/nexthopConfig",
                                            "/nexthopConfig/vrf",
                                            "/ipsecPathConfigDir",
                                            "/navFeaturePolicyDir",
                                            "/navFeaturePolicyDir/appliedPolicy",
                                            "/navDb/lbId",
                                            "/navDb/pathIndex",
                                            "/navDb/lbNameToLbKeySet"};
    const size_t key = place.ends_with("]") ? place.rfind('[') : place.npos;
    return open.contains(place.substr(0, key));
}

std::string json(const Datum& value) {
    std::string out;
    if (const auto* text = value.as<Vel::String>()) return '"' + *text + '"';
    if (const auto* number = value.as<Vel::U64>()) return std::to_string(*number);
    if (const auto* list = value.as<Datum::List>()) {
        for (const Datum& v : *list) out += (out.empty() ? "" : ",") + json(v);
        return "[" + out + "]";
    }
    if (const auto* members = value.as<Datum::Members>()) {
        for (const auto& [name, v] : *members)
            out += (out.empty() ? "\"" : ",\"") + name + "\":" + json(v);
        return "{" + out + "}";
    }
    const bool* flag = value.as<bool>();
    return !flag ? "null" : *flag ? "true" : "false";
}

}  // namespace Oracle

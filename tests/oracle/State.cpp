#include "tests/oracle/State.h"

namespace Oracle {

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

Published::Database databaseOf(const Nav::NavDb& db) {
    Published::Database out;
    for (const auto& path : db.pathKeyInfo())
        out.paths[path.pathKey()] = {path.pathIndex(), path.siteGroupKey(), path.ipsecProfile(),
                                     path.vrfName()};
    for (const auto& addr : db.addrToPathKeySet())
        out.pathsOfAddr[addr.addr()] = setOf<Nav::PathKey>(addr.pathKey());
    out.intfOf = mapOf<IpGenAddr, IntfId>(db.srcToIntfMapping());
    for (const auto& group : db.pathGroupInfo())
        out.groups[group.pgName()] = {setOf<Nav::PathKey>(group.pathKeySet()),
                                      setOf<IpGenAddr>(group.remoteIpList())};
    out.vrfId = mapOf<VrfName, U32>(db.vrfNameToId());
    out.vrfName = mapOf<U32, VrfName>(db.vrfIdToName());
    for (const auto& app : db.vrfApp()) out.applications[app.key] = app;
    for (const auto& profile : db.lbNameToLbKeySet())
        if (auto keys = setOf<Nav::LbProfileKey>(profile.lbKey()); !keys.empty())
            out.keysOfProfile[profile.lbName()] = std::move(keys);
    return out;
}

void copyStatusDir(const Nav::NavStatusDir& dir, Published& out) {
    if (const auto* paths = dir.navPathStatusDir())
        for (const auto& vrf : paths->pathStatus())
            for (const auto& path : vrf.pathStatusEntry())
                out.statuses[vrf.vrfName()][path.key()] = {path.pathInfo(), path.encapId(),
                                                           path.programmed()};
    out.sites = setOf<IpGenAddr>(dir.navRemoteIpList());
    for (const auto& vrf : dir.navRuleStatus())
        out.rules[vrf.name()] = setOf<Nav::NavRuleEntry>(vrf.navRuleEntry());
    if (const auto* balances = dir.navLbProfileStatus())
        for (const auto& balance : balances->lbProfileStatusEntry()) {
            Balance& copy = out.balances[balance.key()];
            copy = {balance.genId(),
                    balance.lbIndex(),
                    {balance.latency(), balance.jitter(), balance.lossRate()},
                    {}};
            for (const auto& member : balance.pathEntry()) copy.members[member.pathIndex] = member;
        }
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

Published publishedIn(const Nav::NavInputs& in, const Nav::NavDb* db) {
    Published out;
    for (const auto& vrf : in.pathConfigDir->pathConfig())
        for (const auto& path : vrf.pathConfigEntry())
            out.paths[vrf.vrfName()][path.key()] = {path.pathIndex(), path.ipsecProfile(),
                                                    path.pathType()};
    copyStatusDir(*in.navStatusDir, out);
    for (const auto& siteGroup : in.siteGroupStatus->siteGroupStatusEntry())
        out.siteGroups[siteGroup.key()] = setOf<U32>(siteGroup.pathIndexEntry());
    for (const auto& vrf : in.nexthopConfig->vrf())
        out.nexthops[vrf.vrfName()] = setOf<IpGenAddr>(vrf.nexthop());
    for (const auto& request : in.ipsecPathConfigDir->ipsecPathConfig())
        out.requests[request.key()] = {request.profile(), request.intfId(),
                                       request.connectionName()};
    for (const auto& policy : in.navFeaturePolicyDir->featurePolicy())
        out.featurePolicies[policy.name()] = {mapOf<U32, String>(policy.appProfilePriority()),
                                              policy.version()};
    for (const auto& applied : in.navFeaturePolicyDir->appliedPolicy())
        out.appliedPolicies = mapOf<VrfName, String>(applied.policyForTarget());
    if (db) out.db = databaseOf(*db);
    return out;
}

}  // namespace Oracle

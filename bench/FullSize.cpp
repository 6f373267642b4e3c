#include "bench/FullSize.h"

#include <stdexcept>

namespace Bench {

namespace {

Netz::IpGenAddr site(U32 number) {
    return Netz::IpGenAddr::fromV4(0x0aff0001 + number);
}
std::string numbered(const char* word, U32 number) {
    return word + std::to_string(number);
}

}  // namespace

Netz::IntfId FullRouter::intf(U32 interface) {
    return Netz::IntfId(numbered("Ethernet", interface + 1));
}
Netz::IpGenAddr FullRouter::source(U32 interface) {
    return Netz::IpGenAddr::fromV4(0xcb007101 + (interface << 8));
}
Netz::IpGenAddr FullRouter::destination(U32 path) {
    return Netz::IpGenAddr::fromV4(0xc6336401 + path);
}
Nav::PathKey FullRouter::pathKey(U32 path) const {
    return {source(interfaceOf(path)), destination(path), 0};
}
Shard::Fib::Via FullRouter::via(U32 path, U32 hop) const {
    const U32 interface = interfaceOf(path);
    return {Netz::IpGenAddr::fromV4(0xcb007100 + (interface << 8) + 250 + hop % hops),
            intf(interface)};
}

FullRouter::FullRouter(const Size& size, bool configured)
    : size(size), in(Nav::makeNavInputs(Vel::make<Vel::Scheduler>(clock))) {
    Nav::NavCliConfig& cli = *in.cliConfig;
    auto& profile = cli.loadBalanceProfileIs("gold");
    auto& results = in.nexthopStatus->vrfIs("default");
    U32 path = 0;
    for (U32 i = 0; i < interfaces; ++i) {
        in.ipStatusDir->ipIntfStatusIs(intf(i)).activeAddrWithMaskIs({source(i), 24});
        auto& group = cli.pathGroupConfigIs(numbered("group", i));
        group.localIntfIs(intf(i));
        profile.pathGroupPriorityIs(group.name(), i + 1);
        for (U32 s = 0; s < size.sites + size.spares; ++s, ++path) {
            group.remoteViaConfigIs(site(s % size.sites)).remoteViaIs(destination(path));
            for (U32 hop = 0; hop < hops; ++hop)
                fecs_[hop].push_back(std::vector<Shard::Fib::Via>{via(path, hop)});
            in.forwardingStatus->fecIs(path + 1, fecs_[1][path]);
            results.nexthopIs({destination(path), path + 1});
        }
    }
    auto& policy = cli.policyConfigIs("policy");
    for (U32 key = 0; key < size.apps * size.rulesPerApp; ++key) {
        const U32 app = 1 + key % size.apps;
        auto& rule = policy.appProfilePolicyRuleListIs(1 + key);
        rule.appProfileIdIs(app);
        rule.appProfileNameIs(numbered("app", app));
        rule.lbGrpNameIs("gold");
    }
    policy.configVersionIs(1);
    for (U32 v = 0; v < size.vrfs; ++v) {
        const L3::VrfName vrf = v == 0 ? "default" : numbered("vrf", v);
        in.routingHwRouteStatus->vrfStatusIs(vrf).vrfIdIs(v);
        cli.vrfConfigIs(vrf).policyNameIs("policy");
    }
    root = Nav::NavRootSmIs(in);
    if (!configured) return;
    configuredIs(true);
    program();
}

void FullRouter::configuredIs(bool on) {
    in.cliConfig->navConfiguredIs(on);
    in.scheduler->runDue();
}

Nav::HwPathKey FullRouter::hwPathKey(U32 path) const {
    const Nav::PathKey key = pathKey(path);
    const auto* entry = in.pathConfigDir->pathConfig("default")->pathConfigEntry(key);
    return {key.srcAddr, key.dstAddr, key.vrfId, entry->pathIndex()};
}

void FullRouter::program() {
    for (const Nav::PathConfig& vrf : in.pathConfigDir->pathConfig())
        for (const Nav::PathConfigEntry& path : vrf.pathConfigEntry()) {
            const Nav::PathKey& key = path.key();
            auto& entry = in.hwPathStatus->hwPathStatusListIs(
                {key.srcAddr, key.dstAddr, key.vrfId, path.pathIndex()});
            entry.hwPathIndexIs(path.pathIndex());
            entry.hwArpIndexIs(path.pathIndex());
        }
    in.scheduler->runDue();
}

void FullRouter::programAnew() {
    in.hwPathStatus->hwPathStatusListDelAll();
    program();
}

void FullRouter::interfaceFails(U32 interface) {
    in.ipStatusDir->ipIntfStatus(intf(interface))->activeAddrWithMaskIs({});
    in.scheduler->runDue();
}

void FullRouter::interfaceReturns(U32 interface) {
    in.ipStatusDir->ipIntfStatus(intf(interface))->activeAddrWithMaskIs({source(interface), 24});
    in.scheduler->runDue();
    programAnew();
}

void FullRouter::fecChanges(U32 path, U32 hop) {
    in.forwardingStatus->fecIs(path + 1, fecs_[hop % hops][path]);
    in.scheduler->runDue();
}

void FullRouter::destinationIs(U32 path, bool listed) {
    const U32 number = path % (size.sites + size.spares) % size.sites;
    auto& via = in.cliConfig->pathGroupConfig(numbered("group", interfaceOf(path)))
                    ->remoteViaConfigIs(site(number));
    if (listed)
        via.remoteViaIs(destination(path));
    else
        via.remoteViaDel(destination(path));
    in.scheduler->runDue();
}

void requireFull(const FullRouter& router) {
    U32 members = 0;
    for (const auto& key : router.in.navStatusDir->navLbProfileStatus()->lbProfileStatusEntry())
        members += key.pathEntry().size();
    if (router.root->navContainer()->navDb()->pathKeyInfo().size() != router.size.paths() ||
        members != router.size.paths() * router.size.apps * router.size.vrfs)
        throw std::runtime_error("the router is not at full size");
}

}  // namespace Bench

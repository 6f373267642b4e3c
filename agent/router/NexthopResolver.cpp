#include "agent/router/NexthopResolver.h"

#include <algorithm>
#include <set>
#include <tuple>

namespace Agent {

using Netz::IpGenAddr;
using Shard::Fib::Via;
using Vel::U64;
using Vias = NexthopResolver::Vias;

namespace {

// A requested address with the vias that it is to get.
struct Target {
    Routing::NexthopVrfStatus& vrf;
    const IpGenAddr& addr;
    const Vias& vias;

    const Routing::NexthopResult* result() const { return vrf.nexthop(addr); }
};

struct ViasLess {
    bool operator()(const Vias& a, const Vias& b) const {
        const auto fields = [](const Via& via) {
            return std::tie(via.hop, via.intfId, via.weight, via.mplsLabel, via.mplsAction);
        };
        return std::ranges::lexicographical_compare(a, b, {}, fields, fields);
    }
};

// The FEC id of each required list of vias; 0: no FEC has these vias.
using FecIds = std::map<Vias, U64, ViasLess>;

template <class Fib>
FecIds presentFecs(const Fib& fib, const std::vector<Target>& targets) {
    FecIds ids;
    for (const Target& target : targets) ids.try_emplace(target.vias, 0);
    for (const auto& [id, fec] : fib.fec())
        if (const auto wanted = ids.find(fec.vias()); wanted != ids.end()) wanted->second = id;
    return ids;
}

// For each FEC in use, the vias that all its addresses are to get; null if these differ.
std::map<U64, const Vias*> commonVias(const std::vector<Target>& targets) {
    std::map<U64, const Vias*> common;
    for (const Target& target : targets) {
        if (!target.result()) continue;
        const auto [at, first] = common.try_emplace(target.result()->fecId, &target.vias);
        if (!first && at->second && *at->second != target.vias) at->second = nullptr;
    }
    return common;
}

// Publishes the vias of the targets, all of one address family. REQUIRES: no other address of the
// family has a result.
template <class Fib>
void publishFamily(Fib& fib, const std::vector<Target>& targets, U64& lastFecId) {
    FecIds ids = presentFecs(fib, targets);
    std::set<U64> used;
    for (const auto& [vias, id] : ids) used.insert(id);
    for (const auto& [fecId, vias] : commonVias(targets)) {
        if (!vias || used.contains(fecId)) continue;
        U64& id = ids.find(*vias)->second;
        if (id != 0) continue;
        used.insert(id = fecId);
        fib.fecIs(id, *vias);
    }
    for (auto& [vias, id] : ids) {
        if (id != 0) continue;
        used.insert(id = ++lastFecId);
        fib.fecIs(id, vias);
    }
    for (const Target& target : targets)
        target.vrf.nexthopIs({target.addr, ids.find(target.vias)->second});
    for (const auto& [id, fec] : fib.fec())
        if (!used.contains(id)) fib.fecDel(id);
}

}  // namespace

NexthopResolver::NexthopResolver(const Nav::NavInputs& inputs, Lookup lookup)
    : in_(inputs),
      lookup_(std::move(lookup)),
      resolution_(Loom::call<&NexthopResolver::resolve>(*this)),
      requests_(*this, *in_.nexthopConfig, Routing::NexthopConfig::vrfAttr),
      paths_(*this, *in_.pathConfigDir, Nav::PathConfigDir::pathConfigAttr) {
    requests_.initialize();
    paths_.initialize();
    review();
}

void NexthopResolver::resolve() {
    const Vel::Hold hold;
    const ViasByVrf wanted = lookup_(*in_.nexthopConfig);
    Routing::NexthopStatus& status = *in_.nexthopStatus;
    for (const auto& vrf : status.vrf())
        if (!wanted.contains(vrf.vrfName())) status.vrfDel(vrf.vrfName());
    std::vector<Target> targets, targets6;
    for (const auto& [name, resolved] : wanted) {
        Routing::NexthopVrfStatus& vrf = status.vrfIs(name);
        for (const Routing::NexthopResult& result : vrf.nexthop())
            if (!resolved.contains(result.addr)) vrf.nexthopDel(result.addr);
        for (const auto& [addr, vias] : resolved)
            (addr.isV6() ? targets6 : targets).push_back({vrf, addr, vias});
    }
    publishFamily(*in_.forwardingStatus, targets, lastFecId_);
    publishFamily(*in_.forwarding6Status, targets6, lastFecId_);
}

}  // namespace Agent

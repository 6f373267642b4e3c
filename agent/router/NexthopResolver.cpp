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

// An address with what it is to go by.
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

// The ids of the vias that are wanted; 0 for those that have none yet.
using FecIds = std::map<Vias, U64, ViasLess>;

template <class Table>
FecIds presentFecs(const Table& table, const std::vector<Target>& targets) {
    FecIds ids;
    for (const Target& target : targets) ids.try_emplace(target.vias, 0);
    for (const auto& [id, fec] : table.fec())
        if (const auto wanted = ids.find(fec.vias()); wanted != ids.end()) wanted->second = id;
    return ids;
}

// Per FEC in use, the vias that all its addresses are to go by; null where these differ.
std::map<U64, const Vias*> heirs(const std::vector<Target>& targets) {
    std::map<U64, const Vias*> heirs;
    for (const Target& target : targets) {
        if (!target.result()) continue;
        const auto [heir, first] = heirs.try_emplace(target.result()->fecId, &target.vias);
        if (!first && heir->second && *heir->second != target.vias) heir->second = nullptr;
    }
    return heirs;
}

// Makes the targets, all of one address family, go by their vias. Another address that still has a
// result would be misled meanwhile.
template <class Table>
void writeFamily(Table& table, const std::vector<Target>& targets, U64& lastFecId) {
    FecIds ids = presentFecs(table, targets);
    std::set<U64> used;
    for (const auto& [vias, id] : ids) used.insert(id);
    for (const auto& [fecId, vias] : heirs(targets)) {
        if (!vias || used.contains(fecId)) continue;
        U64& id = ids.find(*vias)->second;
        if (id != 0) continue;
        used.insert(id = fecId);
        table.fecIs(id, *vias);
    }
    for (auto& [vias, id] : ids) {
        if (id != 0) continue;
        used.insert(id = ++lastFecId);
        table.fecIs(id, vias);
    }
    for (const Target& target : targets)
        target.vrf.nexthopIs({target.addr, ids.find(target.vias)->second});
    for (const auto& [id, fec] : table.fec())
        if (!used.contains(id)) table.fecDel(id);
}

}  // namespace

NexthopResolver::VelNexthopVrfConfig::VelNexthopVrfConfig(NexthopResolver& owner,
                                                          Routing::NexthopVrfConfig& config)
    : resolver(owner),
      nexthop(Vel::Subscription::to<&NexthopResolver::review>(
          config, Routing::NexthopVrfConfig::nexthopAttr, &owner)) {}

NexthopResolver::NexthopResolver(const Nav::NavInputs& inputs, Lookup lookup)
    : in_(inputs),
      lookup_(std::move(lookup)),
      resolution_(Loom::call<&NexthopResolver::resolve>(*this)),
      requests_(*this, *in_.nexthopConfig, Routing::NexthopConfig::vrfAttr) {
    requests_.initialize();
    review();
}

void NexthopResolver::resolve() {
    const Vel::Hold hold;
    const Answer answer = lookup_(*in_.nexthopConfig);
    Routing::NexthopStatus& status = *in_.nexthopStatus;
    for (const auto& vrf : status.vrf())
        if (!answer.contains(vrf.vrfName())) status.vrfDel(vrf.vrfName());
    std::vector<Target> targets, targets6;
    for (const auto& [name, resolved] : answer) {
        Routing::NexthopVrfStatus& vrf = status.vrfIs(name);
        for (const Routing::NexthopResult& result : vrf.nexthop())
            if (!resolved.contains(result.addr)) vrf.nexthopDel(result.addr);
        for (const auto& [addr, vias] : resolved)
            (addr.isV6() ? targets6 : targets).push_back({vrf, addr, vias});
    }
    writeFamily(*in_.forwardingStatus, targets, lastFecId_);
    writeFamily(*in_.forwarding6Status, targets6, lastFecId_);
}

}  // namespace Agent

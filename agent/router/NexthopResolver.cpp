#include "agent/router/NexthopResolver.h"

#include <optional>
#include <span>
#include <unordered_map>
#include <unordered_set>

namespace Agent {

using Netz::IpGenAddr;
using Vel::U64;
using Vias = NexthopResolver::Vias;

namespace {

// A requested address with the vias that it is to get.
struct Target {
    Routing::NexthopVrfStatus& vrf;
    const IpGenAddr& addr;
    const Vias& vias;
    size_t list = 0;  // position of the vias among the different ones of the family

    const Routing::NexthopResult* result() const { return vrf.nexthop(addr); }
};

struct ViasHash {
    static_assert(Netz::equalAsBytes<Vias::value_type>);

    size_t operator()(const Vias& vias) const {
        const auto bytes = std::as_bytes(std::span(vias));
        return Netz::hashBytes({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    }
};

// The different lists of vias that addresses of one family are to get, each with the id of the FEC
// that has it, 0 without one, in the order of their first use.
struct Lists {
    struct List {
        const Vias& vias;
        U64 fecId = 0;
    };
    std::vector<List> lists;
    std::unordered_map<Vias, size_t, ViasHash> positions;

    explicit Lists(std::vector<Target>& targets) {
        for (Target& target : targets) {
            const auto [at, isNew] = positions.try_emplace(target.vias, lists.size());
            if (isNew) lists.push_back({at->first});
            target.list = at->second;
        }
    }
    List* find(const Vias& vias) {
        const auto at = positions.find(vias);
        return at == positions.end() ? nullptr : &lists[at->second];
    }
};

// For each FEC in use, the list that all its addresses are to get; nothing if these differ. In the
// order of first use.
std::vector<std::pair<U64, std::optional<size_t>>> commonLists(const std::vector<Target>& targets) {
    std::vector<std::pair<U64, std::optional<size_t>>> common;
    std::unordered_map<U64, size_t> positions;
    for (const Target& target : targets) {
        const Routing::NexthopResult* result = target.result();
        if (!result) continue;
        const auto [at, isNew] = positions.try_emplace(result->fecId, common.size());
        if (isNew) common.emplace_back(result->fecId, target.list);
        auto& list = common[at->second].second;
        if (list != target.list) list.reset();
    }
    return common;
}

// Publishes the vias of the targets, all of one address family. REQUIRES: no other address of the
// family has a result.
template <class Fib>
void publishFamily(Fib& fib, std::vector<Target>& targets, U64& lastFecId) {
    Lists wanted(targets);
    for (const auto& [id, fec] : fib.fec())
        if (auto* list = wanted.find(fec.vias())) list->fecId = id;
    std::unordered_set<U64> used;
    for (const auto& [vias, id] : wanted.lists) used.insert(id);
    for (const auto& [fecId, common] : commonLists(targets)) {
        if (!common || used.contains(fecId)) continue;
        auto& [vias, id] = wanted.lists[*common];
        if (id != 0) continue;
        used.insert(id = fecId);
        fib.fecIs(id, vias);
    }
    for (auto& [vias, id] : wanted.lists) {
        if (id != 0) continue;
        used.insert(id = ++lastFecId);
        fib.fecIs(id, vias);
    }
    for (const Target& target : targets)
        target.vrf.nexthopIs({target.addr, wanted.lists[target.list].fecId});
    for (const auto& [id, fec] : fib.fec())
        if (!used.contains(id)) fib.fecDel(id);
}

}  // namespace

const Shard::Fib::Fec* fecOf(const Nav::NavInputs& inputs, const L3::VrfName& vrfName,
                             const IpGenAddr& addr) {
    const Routing::NexthopVrfStatus* vrf = inputs.nexthopStatus->vrf(vrfName);
    const Routing::NexthopResult* result = vrf ? vrf->nexthop(addr) : nullptr;
    if (!result) return nullptr;
    return addr.isV6() ? inputs.forwarding6Status->fec(result->fecId)
                       : inputs.forwardingStatus->fec(result->fecId);
}

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

#include "agent/router/NexthopResolver.h"

#include <optional>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace Agent {

using Netz::IpGenAddr;
using Vel::U64;
using Routes = NexthopResolver::Routes;
using Vias = NexthopResolver::Vias;

namespace {

// The lists of a lookup by their vias. Of equal ones, only the first is used.
class Lists {
  public:
    explicit Lists(const std::vector<Vias>& lists) : lists_(lists) {
        for (const Vias& vias : lists)
            first_.push_back(positions_.try_emplace(bytesOf(vias), first_.size()).first->second);
    }
    size_t size() const { return lists_.size(); }
    const Vias& operator[](size_t list) const { return lists_[list]; }
    size_t firstEqual(size_t list) const { return first_[list]; }
    std::optional<size_t> find(const Vias& vias) const {
        const auto found = positions_.find(bytesOf(vias));
        return found == positions_.end() ? std::nullopt : std::optional(found->second);
    }

  private:
    static_assert(Netz::equalAsBytes<Vias::value_type>);
    static std::string_view bytesOf(const Vias& vias) {
        return {reinterpret_cast<const char*>(vias.data()), vias.size() * sizeof(Vias::value_type)};
    }

    const std::vector<Vias>& lists_;
    std::vector<size_t> first_;
    std::unordered_map<std::string_view, size_t> positions_;
};

// A requested address, the list that it is to get, and the FEC that it has; 0 without one.
struct Target {
    Routing::NexthopVrfStatus& vrf;
    const IpGenAddr& addr;
    size_t list;
    U64 fecId;
};

// What addresses of one FEC are to get.
struct Move {
    U64 fecId;
    size_t list;

    bool operator==(const Move&) const = default;
};

// Those of all targets, in their order. Targets in a row that move alike have one.
std::vector<Move> movesOf(const std::vector<Target>& targets) {
    std::vector<Move> moves;
    for (const Target& target : targets) {
        const Move move{target.fecId, target.list};
        if (moves.empty() || moves.back() != move) moves.push_back(move);
    }
    return moves;
}

// For each FEC in use, the list that all its addresses are to get; nothing if these differ. In the
// order of first use.
std::vector<std::pair<U64, std::optional<size_t>>> commonLists(const std::vector<Move>& moves) {
    std::vector<std::pair<U64, std::optional<size_t>>> common;
    std::unordered_map<U64, size_t> positions;
    for (const Move& move : moves) {
        if (move.fecId == 0) continue;
        const auto [at, isNew] = positions.try_emplace(move.fecId, common.size());
        if (isNew) common.emplace_back(move.fecId, move.list);
        auto& list = common[at->second].second;
        if (list != move.list) list.reset();
    }
    return common;
}

// Publishes the vias of the targets, all of one address family. REQUIRES: no other address of the
// family has a result.
template <class Fib>
void publishFamily(Fib& fib, const std::vector<Target>& targets, const Lists& lists,
                   U64& lastFecId) {
    const std::vector<Move> moves = movesOf(targets);
    std::vector<U64> fecIds(lists.size());  // of each list; 0 without one
    for (const auto& [id, fec] : fib.fec())
        if (const auto list = lists.find(fec.vias())) fecIds[*list] = id;
    std::unordered_set<U64> used;
    for (const Move& move : moves)
        if (fecIds[move.list] != 0) used.insert(fecIds[move.list]);
    const auto fecIs = [&](U64 id, size_t list) {
        used.insert(fecIds[list] = id);
        fib.fecIs(id, lists[list]);
    };
    for (const auto& [fecId, common] : commonLists(moves))
        if (common && fecIds[*common] == 0 && !used.contains(fecId)) fecIs(fecId, *common);
    for (const Move& move : moves)
        if (fecIds[move.list] == 0) fecIs(++lastFecId, move.list);
    for (const Target& target : targets)
        if (target.fecId != fecIds[target.list])
            target.vrf.nexthopIs({target.addr, fecIds[target.list]});
    if (fib.fec().size() == used.size()) return;
    for (const auto& [id, fec] : fib.fec())
        if (!used.contains(id)) fib.fecDel(id);
}

void removeOthers(Routing::NexthopVrfStatus& vrf, const std::vector<Routes::Route>& routes) {
    std::unordered_set<IpGenAddr> kept;
    for (const Routes::Route& route : routes) kept.insert(route.addr);
    for (const Routing::NexthopResult& result : vrf.nexthop())
        if (!kept.contains(result.addr)) vrf.nexthopDel(result.addr);
}

}  // namespace

const Shard::Fib::Fec* fecOf(const Nav::NavInputs& inputs, const L3::VrfName& vrf,
                             const IpGenAddr& addr) {
    return FecFinder()(inputs, vrf, addr);
}

const Shard::Fib::Fec* FecFinder::operator()(const Nav::NavInputs& inputs, const L3::VrfName& vrf,
                                             const IpGenAddr& addr) {
    if (!vrf_ || vrf_->removed()) {
        vrf_ = Vel::Ptr(inputs.nexthopStatus->vrf(vrf));
        place_ = {};
    }
    const Routing::NexthopResult* result = vrf_ ? place_.result(*vrf_, addr) : nullptr;
    return result ? place_.fec(*result, *inputs.forwardingStatus, *inputs.forwarding6Status)
                  : nullptr;
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
    const Routes wanted = lookup_(*in_.nexthopConfig, std::exchange(changed_, false));
    Routing::NexthopStatus& status = *in_.nexthopStatus;
    for (const auto& vrf : status.vrf())
        if (!wanted.vrfs.contains(vrf.vrfName())) status.vrfDel(vrf.vrfName());
    const Lists lists(wanted.lists);
    std::vector<Target> targets, targets6;
    for (const auto& [name, routes] : wanted.vrfs) {
        Routing::NexthopVrfStatus& vrf = status.vrfIs(name);
        size_t present = 0;
        for (const auto& [addr, list] : routes) {
            const Routing::NexthopResult* result = vrf.nexthop(addr);
            present += result != nullptr;
            (addr.isV6() ? targets6 : targets)
                .push_back({vrf, addr, lists.firstEqual(list), result ? result->fecId : 0});
        }
        if (present != vrf.nexthop().size()) removeOthers(vrf, routes);
    }
    publishFamily(*in_.forwardingStatus, targets, lists, lastFecId_);
    publishFamily(*in_.forwarding6Status, targets6, lists, lastFecId_);
}

}  // namespace Agent

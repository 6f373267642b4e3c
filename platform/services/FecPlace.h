// The forwarding equivalence class of one address, found again without a lookup.
#pragma once

#include <utility>

#include "platform/services/Routing.h"
#include "platform/shard/ForwardingStatus.h"

namespace Routing {

// The places of an address's result and of its FEC: each is looked up only after an insertion into
// or a removal from its collection. The collections and the address must be the same in every call.
class FecPlace {
  public:
    // Null while the address is not resolved. Valid until the next insertion or removal.
    const NexthopResult* result(const NexthopVrfStatus& status, const Netz::IpGenAddr& addr) {
        return status.nexthop().find(addr, result_);
    }
    // Null if the table does not have the result's FEC. Valid likewise.
    const Shard::Fib::Fec* fec(const NexthopResult& result,
                               const Shard::Fib::ForwardingStatus& forwarding,
                               const Shard::Fib6::ForwardingStatus& forwarding6) {
        if (std::exchange(fecId_, result.fecId) != result.fecId) fec_ = {};
        const auto& fecs = result.addr.isV4() ? forwarding.fec() : forwarding6.fec();
        const auto* item = fecs.find(result.fecId, fec_);
        return item ? &item->second : nullptr;
    }

  private:
    template <class Collection>
    using PlaceIn = typename std::remove_cvref_t<Collection>::Place;

    PlaceIn<decltype(std::declval<NexthopVrfStatus>().nexthop())> result_;
    PlaceIn<decltype(std::declval<Shard::Fib::ForwardingStatus>().fec())> fec_;
    Vel::U64 fecId_ = 0;  // that of fec_
};

}  // namespace Routing

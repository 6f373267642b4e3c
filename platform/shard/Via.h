// A forwarding via, and the forwarding equivalence class (FEC): the ordered vias that share the
// traffic of one result of the route lookup.
#pragma once

#include <vector>

#include "platform/vel/Value.h"

namespace Shard::Fib {

// One way to forward: next hop, interface, MPLS label and weight. A default-constructed via is the
// unresolved via: no interface, no hop, no label.
struct VEL_EXPORT Via {
    static constexpr Vel::U32 noLabel = 0x100000;  // one above the largest 20-bit label (RFC 3032)

    Netz::IpGenAddr hop;
    Netz::IntfId intfId;
    Vel::U32 mplsLabel = noLabel;
    Vel::U32 mplsAction = 0;
    Vel::U32 weight = 1;

    bool operator==(const Via& other) const { return Netz::sameBytes(*this, other); }
};
VEL_VALUE(Shard::Fib, Via, hop, intfId, mplsLabel, mplsAction, weight)
static_assert(sizeof(Via) == 64 && std::is_trivially_copyable_v<Via>);

// The position of a via in its FEC, 0 to 511. Any other value raises Vel::RangeError.
struct VEL_EXPORT ViaIndex {
    static constexpr Vel::U32 min = 0;
    static constexpr Vel::U32 max = 511;

    explicit ViaIndex(Vel::U32 index) : value(index) {
        if (index > max) [[unlikely]]
            refuse();
    }
    const Vel::U32 value;

  private:
    [[noreturn]] static void refuse();
};

// At most 512 vias; a longer list raises the range error of ViaIndex.
class VEL_EXPORT Fec {
  public:
    static constexpr Vel::U32 maxVias = ViaIndex::max + 1;

    Fec() = default;
    Fec(std::vector<Via> vias) : vias_(std::move(vias)) {
        if (!vias_.empty()) (void)ViaIndex(static_cast<Vel::U32>(vias_.size()) - 1);
    }
    Vel::U32 size() const { return static_cast<Vel::U32>(vias_.size()); }
    const Via& via(ViaIndex index) const { return vias_.at(index.value); }
    const std::vector<Via>& vias() const { return vias_; }
    bool operator==(const Fec&) const = default;

  private:
    std::vector<Via> vias_;
};

}  // namespace Shard::Fib

// The text and data form of a FEC is the list of its vias.
template <>
struct VEL_EXPORT Vel::Codec<Shard::Fib::Fec> {
    static Datum datum(const Shard::Fib::Fec& fec);
    static Shard::Fib::Fec fromDatum(const Datum& d);
};

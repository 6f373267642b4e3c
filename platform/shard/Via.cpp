#include "platform/shard/Via.h"

namespace Shard::Fib {

void ViaIndex::refuse() {
    throw Vel::RangeError("ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed");
}

}  // namespace Shard::Fib

using Shard::Fib::Fec;
using Shard::Fib::Via;

Vel::Datum Vel::Codec<Fec>::datum(const Fec& fec) {
    Datum::List list;
    for (const Via& via : fec.vias()) list.push_back(Codec<Via>::datum(via));
    return {std::move(list)};
}

Fec Vel::Codec<Fec>::fromDatum(const Datum& d) {
    const auto* list = d.as<Datum::List>();
    if (!list) expected("an array of vias", d);
    std::vector<Via> vias;
    for (const Datum& via : *list) vias.push_back(Codec<Via>::fromDatum(via));
    return Fec(std::move(vias));
}

#include "platform/shard/ForwardingStatus.h"

namespace Shard {

namespace Fib {
VEL_DEFINE(Shard::Fib, ForwardingStatus)
}
namespace Fib6 {
VEL_DEFINE(Shard::Fib6, ForwardingStatus)
}

FecTable::FecTable(const char* map)
    : map_(map),
      writer_(std::make_unique<Map::Writer>(map_, maxFecs, maxViaBytes)),
      commit_(Loom::call<&FecTable::commit>(*this)) {}

const FecTable::Item* FecTable::find(Vel::U64 id) const {
    if (!writer_->find(id, vias_)) return nullptr;
    found_.first = id;
    found_.second.swapVias(vias_);
    return &found_;
}

bool FecTable::put(Vel::U64 id, const Fib::Fec& fec) {
    const bool present = writer_->find(id, vias_);
    if (present && vias_ == fec.vias()) return false;
    writer_->valueIs(id, fec.vias());
    if (!present && !ids_.has(id)) ids_.insert(id);
    changed();
    return true;
}

bool FecTable::erase(Vel::U64 id) {
    if (!ids_.take(id).first) return false;
    writer_->valueDel(id);
    changed();
    return true;
}

void FecTable::mountIs(const Namespace& space, Loom::TaskScheduler& scheduler) {
    auto mounted = std::make_unique<Map::Writer>(space, map_, maxFecs, maxViaBytes);
    mounted->clear();
    for (const auto& [id, fec] : *this) mounted->valueIs(id, fec.vias());
    writer_ = std::move(mounted);
    scheduler_ = &scheduler;
    commit();
    writer_->mountComplete();
}

void FecTable::changed() {
    if (scheduler_) scheduler_->post(commit_);
}

}  // namespace Shard

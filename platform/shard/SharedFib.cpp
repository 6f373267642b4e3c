#include "platform/shard/SharedFib.h"

#include "platform/netz/Error.h"
#include "platform/trace/Duolog.h"

namespace Shard {
namespace {

Duolog::Facility shardTrace{"shard"};

}  // namespace

template <class Status>
SharedFib<Status>::SharedFib(Status& status, const Namespace& space, std::string map,
                             Loom::TaskScheduler& scheduler)
    : status_(status),
      space_(space),
      map_(std::move(map)),
      scheduler_(scheduler),
      publication_(Loom::call<&SharedFib::publish>(*this)),
      fec_(Vel::Subscription::to<&SharedFib::handleFec>(status, Status::fecAttr, this)) {
    publish();
}

template <class Status>
void SharedFib<Status>::handleFec(const Vel::U64& id) {
    changed_.insert(id);
    scheduler_.post(publication_);
}

template <class Status>
void SharedFib<Status>::publish() {
    try {
        if (!writer_) {
            writer_ = std::make_unique<typename Map::Writer>(space_, map_, maxFecs, maxViaBytes);
            writer_->clear();  // removes what a dead agent has left
        }
        if (incomplete_)
            for (const auto& [id, fec] : status_.fec()) changed_.insert(id);
        copyChanges();
        const bool wasIncomplete = std::exchange(incomplete_, true);
        incomplete_ = !writer_->commit();
        if (incomplete_) {
            DUOLOG(shardTrace, 4, "shared map '", map_,
                   "' was truncated, damaged or replaced by another process and is created again");
            scheduler_.post(publication_);
        } else if (wasIncomplete) {
            writer_->mountComplete();
        }
        trouble_.clear();
    } catch (const Vel::Error& error) {
        if (trouble_ == error.what()) return;
        trouble_ = error.what();
        DUOLOG(shardTrace, 3, trouble_);
    }
}

// Removals first: they make room. A FEC that does not fit does not keep its previous vias.
template <class Status>
void SharedFib<Status>::copyChanges() {
    const std::set<Vel::U64> leftOutBefore = std::exchange(leftOut_, {});
    changed_.insert(leftOutBefore.begin(), leftOutBefore.end());
    for (const Vel::U64 id : changed_)
        if (!status_.fec(id)) writer_->valueDel(id);
    for (const Vel::U64 id : changed_) {
        const Fib::Fec* fec = status_.fec(id);
        if (!fec || put(id, *fec)) continue;
        leftOut_.insert(id);
        if (!leftOutBefore.contains(id))
            DUOLOG(shardTrace, 4, "shared map '", map_, "' is full: FEC ", id, " with ",
                   fec->size(), " vias is omitted");
    }
    changed_.clear();
}

// A new value is written before the old one is released; if there is no room for both, the old one
// is released first.
template <class Status>
bool SharedFib<Status>::put(Vel::U64 id, const Fib::Fec& fec) {
    do {
        try {
            writer_->valueIs(id, fec.vias());
            return true;
        } catch (const Vel::Error&) {
        }
    } while (writer_->valueDel(id));
    return false;
}

template class SharedFib<Fib::ForwardingStatus>;
template class SharedFib<Fib6::ForwardingStatus>;

}  // namespace Shard

// Publishes a forwarding table in shared memory, where other processes follow it as a list map.
//
// The entity is authoritative, and the map a copy that other processes read: changed FECs are
// copied by a task, so the changes of one iteration of the event loop are one commit. Damage to the
// map or a full map therefore never affects the process that writes the table:
//
// - A FEC that does not fit is omitted from the map, reported once, and tried again at each change.
// - A map that another process truncated, damaged or unlinked is created again at the next change.
// - If no map can be created, or another writer owns it, that is reported and tried again at the
//   next change.
//
// Reports are trace records of facility "shard", level 4, or 3 if there is no map. Used on the
// event thread; the entity and the scheduler must outlive it.
#pragma once

#include <memory>
#include <set>
#include <string>

#include "platform/loom/TaskScheduler.h"
#include "platform/shard/ForwardingStatus.h"
#include "platform/shard/Map.h"

namespace Shard {

// Status is Fib::ForwardingStatus or Fib6::ForwardingStatus.
template <class Status>
class VEL_EXPORT SharedFib {
  public:
    using Map = ListMap<Vel::U64, Fib::Via, Fib::Fec::maxVias>;
    static constexpr uint32_t maxFecs = 4096;
    static constexpr uint64_t maxViaBytes = uint64_t{16384} * sizeof(Fib::Via);

    // Publishes the table's content before it returns. `map`: "fib" or "fib6" in an agent.
    SharedFib(Status& status, const Namespace& space, std::string map,
              Loom::TaskScheduler& scheduler);

  private:
    void handleFec(const Vel::U64& id);
    void publish();
    void copyChanges();
    bool put(Vel::U64 id, const Fib::Fec& fec);

    Status& status_;
    const Namespace space_;
    const std::string map_;
    Loom::TaskScheduler& scheduler_;
    std::unique_ptr<typename Map::Writer> writer_;  // null while no map can be created
    bool incomplete_ = true;                        // the map lacks more than `changed_` lists
    std::set<Vel::U64> changed_;                    // FECs to be copied by the next publication
    std::set<Vel::U64> leftOut_;                    // in the table, not in the map
    std::string trouble_;                           // the last reported; empty while a map exists
    Loom::Task publication_;
    Vel::Subscription fec_;
};

extern template class SharedFib<Fib::ForwardingStatus>;
extern template class SharedFib<Fib6::ForwardingStatus>;

}  // namespace Shard

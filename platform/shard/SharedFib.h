// Publishes a forwarding table in shared memory, where other processes follow it as a list map.
//
// The entity is the truth, and the map a copy that other processes read: FECs that changed are
// copied by a task, so the changes of one run of the event loop are one commit. Damage to the map
// or a full map therefore never reaches the process that writes the table:
//
// - A FEC that does not fit is left out of the map, reported once, and tried again at each change.
// - A map that another process cut, damaged or unlinked is made anew at the next change.
// - Without room for a map, or while another writer has it, there is none; that is reported and
//   tried again at the next change.
//
// Reports are trace records of facility "shard", level 4, or 3 where there is no map. On the event
// thread; the entity and the scheduler live longer.
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

    // Publishes what the table holds before it returns. `map`: "fib" or "fib6" in an agent.
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
    std::unique_ptr<typename Map::Writer> writer_;  // null while no map can be made
    bool incomplete_ = true;                        // the map lacks more than `changed_` says
    std::set<Vel::U64> changed_;                    // FECs to be copied by the next publication
    std::set<Vel::U64> leftOut_;                    // in the table, not in the map
    std::string trouble_;                           // reported; empty while there is a map
    Loom::Task publication_;
    Vel::Subscription fec_;
};

extern template class SharedFib<Fib::ForwardingStatus>;
extern template class SharedFib<Fib6::ForwardingStatus>;

}  // namespace Shard

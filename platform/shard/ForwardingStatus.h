// The forwarding tables: FECs by FEC id, one table per address family, in shared memory.
//
// To the process that writes them they are entities like others: fec(id), fecIs, fecDel, a
// notification per id. The vias live in a list map, which takes memory by their number, and every
// lookup goes there, in this process as in any other. A table starts out private to its process;
// `mountIs` puts it under a name in an agent's name space, where others can follow it.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "platform/loom/TaskScheduler.h"
#include "platform/shard/Map.h"
#include "platform/shard/Via.h"
#include "platform/vel/Entity.h"

namespace Shard {

// What both tables are made of. One thread.
class VEL_EXPORT FecTable {
  public:
    using Item = std::pair<Vel::U64, Fib::Fec>;
    class Walk;
    using Map = ListMap<Vel::U64, Fib::Via, Fib::Fec::maxVias>;
    static constexpr uint32_t maxFecs = 4096;
    static constexpr uint64_t maxViaBytes = uint64_t{16384} * sizeof(Fib::Via);

    explicit FecTable(const char* map);

    // Valid until the next lookup or step of a walk. Null when there is none, or when the lookup
    // failed.
    const Item* find(Vel::U64 id) const;
    bool has(Vel::U64 id) const { return ids_.has(id); }
    size_t size() const { return ids_.size(); }
    bool empty() const { return ids_.empty(); }
    // False when that is what is there. Vel::Error when the table is full.
    bool put(Vel::U64 id, const Fib::Fec& fec);
    bool erase(Vel::U64 id);

    // Over all of them as {id, FEC}, in the order in which they came.
    Walk begin() const;
    std::default_sentinel_t end() const { return {}; }
    static Vel::U64 keyOf(const Item& item) { return item.first; }

    // Moves the table to its name in the space. From then on readers are told of what changed when
    // the scheduler next runs its tasks, once however much it was. Takes over what a writer that
    // died left there, and replaces it. Vel::Error while another writer lives.
    void mountIs(const Namespace& space, Loom::TaskScheduler& scheduler);

  private:
    using Ids = Vel::Unordered<Vel::SetTraits<Vel::U64>>;

    void changed();
    void commit() { writer_->commit(); }

    const char* map_;
    std::unique_ptr<Map::Writer> writer_;
    Ids ids_;
    mutable std::vector<Fib::Via> vias_;  // room for what is found
    mutable Item found_;
    Loom::TaskScheduler* scheduler_ = nullptr;  // null while the table is private
    Loom::Task commit_;
};

class FecTable::Walk {
  public:
    explicit Walk(const FecTable& table) : table_(table), ids_(table.ids_.begin()) { settle(); }
    const Item& operator*() const { return *item_; }
    Walk& operator++() {
        ++ids_;
        settle();
        return *this;
    }
    bool operator==(std::default_sentinel_t end) const { return ids_ == end; }

  private:
    void settle() {
        for (item_ = nullptr; !(ids_ == std::default_sentinel); ++ids_)
            if ((item_ = table_.find(*ids_))) return;
    }

    const FecTable& table_;
    Ids::Cursor ids_;
    const Item* item_ = nullptr;
};

inline FecTable::Walk FecTable::begin() const {
    return Walk(*this);
}

// The members of both entities: those of a map whose storage is a FecTable.
#define SHARD_FEC_COLLECTION_(map)                                                     \
  private:                                                                             \
    FecTable fec_{map};                                                                \
                                                                                       \
  public:                                                                              \
    VEL_ORDINAL_(fec)                                                                  \
    static constexpr Vel::Attr<Self, Vel::U64> fecAttr{velOrdinalOf_fec};              \
    const FecTable& fec() const {                                                      \
        return fec_;                                                                   \
    }                                                                                  \
    /* Valid until the next lookup. */                                                 \
    const Fib::Fec* fec(Vel::U64 id) const {                                           \
        const FecTable::Item* item = fec_.find(id);                                    \
        return item ? &item->second : nullptr;                                         \
    }                                                                                  \
    void fecIs(const Vel::U64& id, const Fib::Fec& fec) {                              \
        const Vel::U64 key = id; /* which may be part of what a lookup found */        \
        if (fec_.put(key, fec)) changed(velOrdinalOf_fec, &key);                       \
    }                                                                                  \
    void fecDel(const Vel::U64& id) {                                                  \
        const Vel::U64 key = id;                                                       \
        if (fec_.erase(key)) changed(velOrdinalOf_fec, &key);                          \
    }                                                                                  \
    void fecDelAll() {                                                                 \
        for (const FecTable::Item& item : fec_) fecDel(item.first);                    \
    }                                                                                  \
    void mountIs(const Namespace& space, Loom::TaskScheduler& scheduler) {             \
        fec_.mountIs(space, scheduler);                                                \
    }                                                                                  \
    VEL_DESCRIBED_(fec, Vel::mapAttribute<velSelf, Vel::U64, Fib::Fec, &velSelf::fec_, \
                                          &velSelf::fecIs, &velSelf::fecDel>("fec"))

namespace Fib {

class VEL_EXPORT ForwardingStatus : public Vel::Entity {
    VEL_ENTITY(ForwardingStatus, Vel::Name, name)
    SHARD_FEC_COLLECTION_("fib")
};

}  // namespace Fib

namespace Fib6 {

class VEL_EXPORT ForwardingStatus : public Vel::Entity {
    VEL_ENTITY(ForwardingStatus, Vel::Name, name)
    SHARD_FEC_COLLECTION_("fib6")
};

}  // namespace Fib6
}  // namespace Shard

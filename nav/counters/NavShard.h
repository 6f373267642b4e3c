// Traffic counters per load-balance id, with a breakdown per member path, in a shared-memory table.
//
// The forwarding side writes them, anybody reads them without going through the agent; this
// library only declares the table. NavCounters is the entity on either side: it becomes a writer or
// a reader when it is given a control, which mounts the table in the name space of an agent's run
// directory. All counters start at 0. Bytes and packets only grow while an entry lives; throughput
// is in bits per second.
#pragma once

#include <array>
#include <chrono>
#include <memory>

#include "nav/types/PathTypes.h"
#include "platform/shard/Map.h"
#include "platform/vel/Entity.h"

namespace NavShard {

using Nav::U32;
using Nav::U64;

struct NavLbProfileCounterKey {
    U32 lbId = 0;

    auto operator<=>(const NavLbProfileCounterKey&) const = default;
};
VEL_VALUE(NavShard, NavLbProfileCounterKey, lbId)

// The place of a member path: its path index, 0 to 128. Another value is refused with a range
// error.
struct NAV_EXPORT NavPathCounterIndex {
    static constexpr U32 min = 0;
    static constexpr U32 max = 128;

    explicit NavPathCounterIndex(U32 index = 0) : value(checked(index)) {}
    NavPathCounterIndex operator+(U32 delta) const { return NavPathCounterIndex(value + delta); }
    NavPathCounterIndex& operator+=(U32 delta) { return *this = *this + delta; }
    auto operator<=>(const NavPathCounterIndex&) const = default;

    U32 value;

  private:
    static U32 checked(U32 index) {
        if (index > max) [[unlikely]]
            refuse();
        return index;
    }
    [[noreturn]] static void refuse();
};

struct NavPathCounterEntry {
    U32 pathId = 0;
    U64 outBytes = 0;
    U64 outPkts = 0;
    double throughput = 0;
    U64 flows = 0;

    bool operator==(const NavPathCounterEntry&) const = default;
};
VEL_VALUE(NavShard, NavPathCounterEntry, pathId, outBytes, outPkts, throughput, flows)

struct NAV_EXPORT NavLbProfileCounterEntry {
    static constexpr U32 pathSlots = NavPathCounterIndex::max + 1;

    NavLbProfileCounterKey key;
    Nav::LbProfileKey lbKeyInfo;  // what the id stands for
    U64 outBytes = 0;
    U64 outPkts = 0;
    double throughput = 0;
    U64 flows = 0;
    std::array<NavPathCounterEntry, pathSlots> pathCounter{};

    void pathCounterIs(NavPathCounterIndex index, const NavPathCounterEntry& entry) {
        pathCounter[index.value] = entry;
    }
    void pathCounterDel(NavPathCounterIndex index) { pathCounter[index.value] = {}; }
    void pathCounterDelAll() { pathCounter.fill({}); }
    bool operator==(const NavLbProfileCounterEntry&) const = default;
};
static_assert(std::is_trivially_copyable_v<NavLbProfileCounterEntry>);
static_assert(sizeof(NavPathCounterEntry) == 40 &&
              sizeof(NavLbProfileCounterEntry) == 64 + 129 * 40);

using LbProfileCounterMap = Shard::Map<NavLbProfileCounterKey, NavLbProfileCounterEntry>;
inline constexpr const char* lbProfileCounterName = "lbProfileCounter";

// The mount of the table in this process: as its one writer, or as a reader.
class NAV_EXPORT LbProfileCounterControl : public Vel::Object {
  public:
    // Creates the table or takes over what a writer left. Vel::Error while another writer lives.
    static Vel::Ptr<LbProfileCounterControl> writer(const Shard::Namespace& space);
    // A reader may come before the writer; it finds nothing until then.
    static Vel::Ptr<LbProfileCounterControl> reader(const Shard::Namespace& space);

  private:
    friend class NavCounters;
    std::unique_ptr<LbProfileCounterMap::Writer> writer_;
    std::unique_ptr<LbProfileCounterMap::Reader> reader_;
};

class NAV_EXPORT NavCounters : public Vel::Entity {
    VEL_ENTITY(NavCounters, Vel::Name, name)
    // Told to subscribers of this process: the key whose entry changed, that any may have, that the
    // mount's state changed, that the writer has gone in order.
    VEL_ORDINAL_(lbProfileCounter)
    static constexpr Vel::Attr<NavCounters, NavLbProfileCounterKey> lbProfileCounterAttr{
        velOrdinalOf_lbProfileCounter};
    VEL_ORDINAL_(lbProfileCounterCollection)
    static constexpr Vel::Attr<NavCounters> lbProfileCounterCollectionAttr{
        velOrdinalOf_lbProfileCounterCollection};
    VEL_ORDINAL_(lbProfileCounterMountStatus)
    static constexpr Vel::Attr<NavCounters> lbProfileCounterMountStatusAttr{
        velOrdinalOf_lbProfileCounterMountStatus};
    VEL_ORDINAL_(lbProfileCounterQuiesced)
    static constexpr Vel::Attr<NavCounters> lbProfileCounterQuiescedAttr{
        velOrdinalOf_lbProfileCounterQuiesced};

    void lbProfileCounterControlIs(Vel::Ptr<LbProfileCounterControl> control);
    LbProfileCounterControl* lbProfileCounterControl() const { return control_.get(); }

    // The writer's side; Vel::Error without a writer's control, or when the table is full (1023
    // ids). A written entry can be looked up at once; readers are told when it is committed.
    void lbProfileCounterIs(const NavLbProfileCounterEntry& entry);
    void lbProfileCounterDel(const NavLbProfileCounterKey& key);
    void lbProfileCounterDelAll();
    // Commits that entry, or all that was written since the last commit. False when another process
    // had cut, damaged or unlinked the table: it has been made anew and is empty; write every entry
    // again and end with lbProfileCounterMounted.
    bool lbProfileCounterCommit(const NavLbProfileCounterEntry& entry);
    bool lbProfileCounterCommit();
    void lbProfileCounterMounted();  // the table holds all that it should

    // Either side. False when there is none, or no table.
    bool lbProfileCounter(const NavLbProfileCounterKey& key, NavLbProfileCounterEntry& entry) const;

    // The reader's side. Readable when there is something to update; -1 without a reader's control.
    int lbProfileCounterFd() const;
    // Waits until it is readable. True unless the time ran out.
    bool lbProfileCounterAwait(std::chrono::milliseconds timeout) const;
    // Why the table that is there cannot be read; empty if it can.
    std::string lbProfileCounterRefusal() const;
    // Takes in what happened since, and notifies subscribers of this process of it.
    Shard::MapState lbProfileCounterUpdate();
    // Calls visit(entry) for each entry.
    template <class Visit>
    void eachLbProfileCounter(Visit&& visit) const {
        if (control_ && control_->reader_)
            control_->reader_->forEach(
                [&](const NavLbProfileCounterKey&, const auto& entry) { visit(entry); });
    }

    void lbProfileCounterNotify(const NavLbProfileCounterKey& key) {
        changed(velOrdinalOf_lbProfileCounter, &key);
    }
    void lbProfileCounterNotifyCollection() { changed(velOrdinalOf_lbProfileCounterCollection); }
    void lbProfileCounterNotifyMountStatus() { changed(velOrdinalOf_lbProfileCounterMountStatus); }
    void lbProfileCounterNotifyQuiesced() { changed(velOrdinalOf_lbProfileCounterQuiesced); }

  private:
    LbProfileCounterMap::Writer& writer() const;

    Vel::Ptr<LbProfileCounterControl> control_;
    Shard::MapState state_ = Shard::MapState::absent;
};

NAV_EXPORT Vel::Ptr<NavCounters> navCountersFactory(const Vel::Name& name);

}  // namespace NavShard

// An entry holds a collection: it has a text and a form as data, and cannot be made from either.
template <>
struct NAV_EXPORT Vel::Codec<NavShard::NavLbProfileCounterEntry> {
    static void text(std::string& out, const NavShard::NavLbProfileCounterEntry& entry);
    static std::optional<NavShard::NavLbProfileCounterEntry> parse(TextReader& in);
    static Datum datum(const NavShard::NavLbProfileCounterEntry& entry);
};

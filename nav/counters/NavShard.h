// Traffic counters per load-balance id, with a breakdown per member path, in a shared-memory table.
//
// The forwarding side writes them, and any process reads them without involving the agent; this
// library only declares the table. NavCounters is the entity for both sides: it becomes a writer or
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

// The index of a member path's slot: its path index, 0 to 128. Any other value raises a range
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
    Nav::LbProfileKey lbKeyInfo;  // the key of the load-balance id
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

// The mount of the table in this process: as its only writer, or as a reader.
class NAV_EXPORT LbProfileCounterControl : public Vel::Object {
  public:
    // Creates the table or takes over the one that a dead writer left. Raises Vel::Error while
    // another writer lives.
    static Vel::Ptr<LbProfileCounterControl> writer(const Shard::Namespace& space);
    // A reader may exist before the writer; until then lookups find nothing.
    static Vel::Ptr<LbProfileCounterControl> reader(const Shard::Namespace& space);

  private:
    friend class NavCounters;
    std::unique_ptr<LbProfileCounterMap::Writer> writer_;
    std::unique_ptr<LbProfileCounterMap::Reader> reader_;
};

class NAV_EXPORT NavCounters : public Vel::Entity {
    VEL_ENTITY(NavCounters, Vel::Name, name)
    // Notifications for subscribers in this process: the entry of a key changed; any entry may have
    // changed; the state of the mount changed; the writer has stopped in order.
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

    // For the writer. Raises Vel::Error without a writer's control, or if the table is full (1023
    // ids). A written entry can be looked up at once; readers are notified when it is committed.
    void lbProfileCounterIs(const NavLbProfileCounterEntry& entry);
    void lbProfileCounterDel(const NavLbProfileCounterKey& key);
    void lbProfileCounterDelAll();
    // Commits that entry, or everything written since the last commit. False if another process has
    // truncated, damaged or unlinked the table: a new, empty one has been created; write every
    // entry again and end with lbProfileCounterMounted.
    bool lbProfileCounterCommit(const NavLbProfileCounterEntry& entry);
    bool lbProfileCounterCommit();
    void lbProfileCounterMounted();  // tells readers that the table is complete

    // For both sides. False if the entry or the table is not found.
    bool lbProfileCounter(const NavLbProfileCounterKey& key, NavLbProfileCounterEntry& entry) const;

    // For the reader. Readable when there is something to update; -1 without a reader's control.
    int lbProfileCounterFd() const;
    // Waits until the descriptor is readable. False if the time ran out.
    bool lbProfileCounterAwait(std::chrono::milliseconds timeout) const;
    // Why the existing table cannot be read; empty if it can.
    std::string lbProfileCounterRefusal() const;
    // Processes what happened since the last call, and notifies subscribers in this process.
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

// An entry contains a collection: it has a text and a form as data, but cannot be made from either.
template <>
struct NAV_EXPORT Vel::Codec<NavShard::NavLbProfileCounterEntry> {
    static void text(std::string& out, const NavShard::NavLbProfileCounterEntry& entry);
    static std::optional<NavShard::NavLbProfileCounterEntry> parse(TextReader& in);
    static Datum datum(const NavShard::NavLbProfileCounterEntry& entry);
};

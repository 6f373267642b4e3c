// The storage of unordered collections: an append-only slot array in insertion order with an
// open-addressing index beside it.
//
// Iteration is in insertion order and safe while handlers insert and delete: a cursor is registered
// with its collection, points at the next slot, and is adjusted when slots are compacted. It visits
// each item that was present at its start and is still present when reached, once, and yields a
// copy (of a pointer or a small value), so a loop variable never dangles. A removed item leaves a
// tombstone until the next compaction.
//
// The storage is a member of an Object, so it outlives every iteration over it (the cursor is a
// Hold).
#pragma once

#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "platform/netz/SameBytes.h"
#include "platform/vel/Object.h"
#include "platform/vel/Value.h"

namespace Vel {

struct IndexEntry {
    U32 tag;
    U32 slot;  // `none`: free
};

// Traits: `Key`; `Item` and `static const Key& key(const Item&)`; what a walk keeps, `Yield` and
// `static Yield yield(const Item&)`; what it shows, `static decltype(auto) reference(const Yield&)`
// and `static const Key& keyOf(shown)`.
template <class Traits>
class Unordered {
  public:
    using Key = typename Traits::Key;
    using Item = typename Traits::Item;
    class Cursor;

    // Where an item was found, so that it is looked up again only after an insertion or removal.
    class Place {
        friend class Unordered;
        const Item* item_ = nullptr;
        U64 layout_ = 0;
    };

    Unordered() = default;
    Unordered(const Unordered&) = delete;
    Unordered& operator=(const Unordered&) = delete;

    U32 size() const { return live_; }
    bool empty() const { return live_ == 0; }
    bool has(const Key& key) const { return find(key) != nullptr; }

    // The key of what iteration yields.
    static decltype(auto) keyOf(const auto& yielded) { return Traits::keyOf(yielded); }
    static const Key& keyIn(const Item& item) { return Traits::key(item); }

    // The item under a key, or null. Valid until the next insertion or removal.
    const Item* find(const Key& key) const {
        const Slot* slot = slotOf(key);
        return slot ? &slot->item : nullptr;
    }
    // The same by way of the place where the key was sought before. REQUIRES: `place` is new, or
    // was used with this collection and this key only.
    const Item* find(const Key& key, Place& place) const {
        if (place.layout_ != layout_) {
            place.item_ = find(key);
            place.layout_ = layout_;
        }
        return place.item_;
    }
    Item* find(const Key& key) { return const_cast<Item*>(std::as_const(*this).find(key)); }

    // REQUIRES: no item under this key.
    Item& insert(const Item& item) { return append(item); }
    Item& insert(Item&& item) { return append(std::move(item)); }

    // Removes the item. Returns whether it was found, and the item, or else a default one.
    std::pair<bool, Item> take(const Key& key) {
        Slot* const slot = const_cast<Slot*>(slotOf(key));
        if (!slot) return {false, Item{}};
        return {true, take(*slot)};
    }
    // Removes the item that was inserted first. REQUIRES: not empty.
    Item takeOldest() {
        while (!slots_[oldest_].live) ++oldest_;
        return take(slots_[oldest_]);
    }

    Cursor begin() const { return Cursor(*this); }
    std::default_sentinel_t end() const { return {}; }

  private:
    static constexpr U32 none = 0xFFFFFFFF;
    static constexpr U32 smallSize = 8;  // up to this many slots a scan is faster than an index
    static constexpr U32 keptDead = 16;  // up to this many tombstones are not compacted

    struct Slot {
        explicit Slot(const Item& inserted) : item(inserted) {}
        explicit Slot(Item&& inserted) : item(std::move(inserted)) {}

        Item item;         // default when not live
        U32 tag = 0;       // of its key; unused while there is no index
        bool live = true;  // else a tombstone
    };

    static bool same(const Key& a, const Key& b) {
        if constexpr (Netz::equalAsBytes<Key>)
            return Netz::sameBytes(a, b);
        else
            return a == b;
    }
    static U32 tagOf(const Key& key) {
        return static_cast<U32>(Codec<Key>::mix(key) >> 32);  // depends on every bit of the key
    }

    const Slot* slotOf(const Key& key) const {
        if (!index_) {
            for (const Slot& slot : slots_)
                if (slot.live && same(Traits::key(slot.item), key)) return &slot;
            return nullptr;
        }
        const U32 tag = tagOf(key);
        for (U32 i = tag & mask_;; i = (i + 1) & mask_) {
            const IndexEntry& entry = index_[i];
            if (entry.slot == none) return nullptr;
            if (entry.tag == tag && same(Traits::key(slots_[entry.slot].item), key))
                return &slots_[entry.slot];
        }
    }

    template <class T>
    Item& append(T&& item) {
        ++layout_;
        if (slots_.size() == slots_.capacity()) makeRoom();
        Slot& slot = slots_.emplace_back(std::forward<T>(item));
        ++live_;
        if (index_) {
            slot.tag = tagOf(Traits::key(slot.item));
            place(static_cast<U32>(slots_.size()) - 1);
        } else if (slots_.size() > smallSize) {
            for (Slot& each : slots_)
                if (each.live) each.tag = tagOf(Traits::key(each.item));
            reindex();
        }
        return slot.item;
    }

    Item take(Slot& slot) {
        ++layout_;
        if (index_) unplace(static_cast<U32>(&slot - slots_.data()));
        Item item = std::exchange(slot.item, Item{});
        slot.live = false;
        --live_;
        if (live_ == 0 || slots_.size() - live_ > live_ + keptDead) compact();
        return item;
    }

    void place(U32 slot) {
        U32 i = slots_[slot].tag & mask_;
        while (index_[i].slot != none) i = (i + 1) & mask_;
        index_[i] = {slots_[slot].tag, slot};
    }
    void unplace(U32 slot) {
        U32 hole = slots_[slot].tag & mask_;
        while (index_[hole].slot != slot) hole = (hole + 1) & mask_;
        // Move back the entries that the hole would separate from their home slot.
        for (U32 i = (hole + 1) & mask_; index_[i].slot != none; i = (i + 1) & mask_) {
            if (((i - (index_[i].tag & mask_)) & mask_) < ((i - hole) & mask_)) continue;
            index_[hole] = index_[i];
            hole = i;
        }
        index_[hole].slot = none;
    }

    void reindex() {
        U32 wanted = 16;
        while (wanted < slots_.capacity() * 2) wanted *= 2;
        if (!index_ || wanted != mask_ + 1) index_ = std::make_unique<IndexEntry[]>(wanted);
        mask_ = wanted - 1;
        for (U32 i = 0; i <= mask_; ++i) index_[i].slot = none;
        for (U32 i = 0; i < slots_.size(); ++i)
            if (slots_[i].live) place(i);
    }

    void makeRoom() {
        if (live_ < slots_.size() / 2) return compact();
        slots_.reserve(slots_.empty() ? 4 : slots_.size() * 2);
        if (index_) reindex();
    }

    void compact() {
        for (Cursor* c = cursors_; c; c = c->outer_) {
            c->at_ -= deadBefore(c->at_);
            c->end_ -= deadBefore(c->end_);
        }
        oldest_ = 0;
        if (live_ == 0) return slots_.clear();  // removals have emptied the index
        std::erase_if(slots_, [](const Slot& slot) { return !slot.live; });
        if (index_) reindex();
    }
    U32 deadBefore(U32 at) const {
        if (live_ == 0) return at;
        U32 dead = 0;
        for (U32 i = 0; i < at; ++i) dead += !slots_[i].live;
        return dead;
    }

    std::vector<Slot> slots_;  // in the order of insertion; a key is live in one slot at most
    // Index of all live slots, probed linearly from tag & mask_, at most half full. Null until
    // there are more than smallSize slots.
    std::unique_ptr<IndexEntry[]> index_;
    U32 mask_ = 0;    // entries of the index less one; entries are a power of two
    U32 live_ = 0;    // slots that are live
    U32 oldest_ = 0;  // no slot before it is live
    U64 layout_ = 1;  // changes with each insertion and removal
    mutable Cursor* cursors_ = nullptr;  // of the iterations in progress, innermost first
};

template <class Traits>
class Unordered<Traits>::Cursor {
  public:
    using Yield = typename Traits::Yield;

    explicit Cursor(const Unordered& table)
        : table_(table), outer_(table.cursors_), end_(static_cast<U32>(table.slots_.size())) {
        table.cursors_ = this;
        ++*this;
    }
    Cursor(const Cursor&) = delete;
    Cursor& operator=(const Cursor&) = delete;
    ~Cursor() {
        Cursor** link = &table_.cursors_;
        while (*link != this) link = &(*link)->outer_;
        *link = outer_;
    }

    decltype(auto) operator*() const { return Traits::reference(now_); }
    Cursor& operator++() {
        while (at_ < end_) {
            const Slot& slot = table_.slots_[at_++];
            if (!slot.live) continue;
            now_ = Traits::yield(slot.item);
            return *this;
        }
        done_ = true;
        return *this;
    }
    bool operator==(std::default_sentinel_t) const { return done_; }

  private:
    friend class Unordered;

    Hold hold_;
    const Unordered& table_;
    Cursor* outer_;
    U32 at_ = 0;  // the next slot to look at
    U32 end_;     // behind the last slot that existed at the start
    bool done_ = false;
    Yield now_{};
};

}  // namespace Vel

// The storage of ordered collections: ascending by key, with the iteration rules of Unordered.
#pragma once

#include <iterator>
#include <map>
#include <optional>
#include <utility>

#include "platform/vel/Object.h"
#include "platform/vel/Types.h"

namespace Vel {

// Traits as for Unordered. An iteration remembers its key and searches from it after a removal, so
// any change during it is harmless; items inserted after its start are recognised by their serial
// number and skipped.
template <class Traits>
class Ordered {
  public:
    using Key = typename Traits::Key;
    using Item = typename Traits::Item;
    class Cursor;

    Ordered() = default;
    Ordered(const Ordered&) = delete;
    Ordered& operator=(const Ordered&) = delete;

    U32 size() const { return static_cast<U32>(items_.size()); }
    bool empty() const { return items_.empty(); }
    bool has(const Key& key) const { return items_.contains(key); }
    // The key of what iteration yields.
    static decltype(auto) keyOf(const auto& yielded) { return Traits::keyOf(yielded); }
    static const Key& keyIn(const Item& item) { return Traits::key(item); }
    const Item* find(const Key& key) const {
        auto it = items_.find(key);
        return it == items_.end() ? nullptr : &it->second.second;
    }
    Item* find(const Key& key) { return const_cast<Item*>(std::as_const(*this).find(key)); }
    Item& insert(Item item) {
        Key key = Traits::key(item);
        return items_.emplace(std::move(key), std::pair(next_++, std::move(item)))
            .first->second.second;
    }
    std::pair<bool, Item> take(const Key& key) {
        auto node = items_.extract(key);
        if (node.empty()) return {false, Item{}};
        ++removals_;
        return {true, std::move(node.mapped().second)};
    }
    Cursor begin() const { return Cursor(*this); }
    std::default_sentinel_t end() const { return {}; }

  private:
    std::map<Key, std::pair<U64, Item>> items_;  // with serial numbers, in the order of insertion
    U64 next_ = 0;                               // serial number of the next item
    U64 removals_ = 0;  // removals so far; map iterators survive insertions
};

template <class Traits>
class Ordered<Traits>::Cursor {
  public:
    explicit Cursor(const Ordered& table) : table_(table), end_(table.next_) { ++*this; }
    Cursor(const Cursor&) = delete;
    Cursor& operator=(const Cursor&) = delete;

    decltype(auto) operator*() const { return Traits::reference(now_); }
    Cursor& operator++() {
        if (!key_)
            at_ = table_.items_.begin();
        else if (removals_ == table_.removals_)
            ++at_;
        else
            at_ = table_.items_.upper_bound(*key_);
        removals_ = table_.removals_;
        while (at_ != table_.items_.end() && at_->second.first >= end_) ++at_;
        done_ = at_ == table_.items_.end();
        if (done_) return *this;
        key_ = at_->first;
        now_ = Traits::yield(at_->second.second);
        return *this;
    }
    bool operator==(std::default_sentinel_t) const { return done_; }

  private:
    Hold hold_;
    const Ordered& table_;
    U64 end_;           // the serial number of the first item inserted after the start
    U64 removals_ = 0;  // when at_ was valid
    typename decltype(Ordered::items_)::const_iterator at_;
    std::optional<Key> key_;  // of at_
    bool done_ = false;
    typename Traits::Yield now_{};
};

}  // namespace Vel

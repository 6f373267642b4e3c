// A collection keyed by path: lookup, insertion, replacement, iteration.
#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/Bench.h"
#include "nav/types/PathTypes.h"
#include "platform/vel/Entity.h"

#ifdef BENCH_ROBIN_MAP
#include <tsl/robin_map.h>
#endif
#ifdef BENCH_BOOST_FLAT_MAP
#include <boost/unordered/unordered_flat_map.hpp>
#endif
#ifdef BENCH_ABSL
#include <absl/container/flat_hash_map.h>
#endif

namespace Bench {

class Element : public Vel::Entity {
    VEL_ENTITY(Element, Nav::PathKey, key)
    VEL_ATTRIBUTE(U32, index, 0)
};
class Elements : public Vel::Entity {
    VEL_ENTITY(Elements, Vel::Name, name)
    VEL_COLLECTION(Nav::PathKey, Element, member)
};
VEL_DEFINE(Bench, Element)
VEL_DEFINE(Bench, Elements)

namespace {

using Nav::PathKey;

// The keys of four interfaces' paths, unordered, the same in each run.
std::vector<PathKey> keysOf(size_t count) {
    std::vector<PathKey> keys;
    for (U32 i = 0; i < count; ++i)
        keys.push_back({Netz::IpGenAddr::fromV4(0xcb007101 + (i % 4 << 8)),
                        Netz::IpGenAddr::fromV4(0xc6336401 + i / 4), 0});
    std::ranges::shuffle(keys, std::mt19937(1));
    return keys;
}

// Each side: allocated elements by key.
struct Ours {
    Vel::Ptr<Elements> elements = Vel::make<Elements>("elements");
    const Element* find(const PathKey& key) const { return elements->member(key); }
    void insert(const PathKey& key) { elements->memberIs(key); }
    void erase(const PathKey& key) { elements->memberDel(key); }
    template <class F>
    void each(F&& f) const {
        for (const Element& element : elements->member()) f(element);
    }
};

// The limit of a lookup and of an iteration: the position is known.
struct Known {
    struct Slot {
        PathKey key;
        Vel::Ptr<Element> element;
    };
    std::vector<Slot> slots;
    void insert(const PathKey& key) { slots.push_back({key, Vel::make<Element>(key)}); }
    const Element* at(size_t slot, const PathKey& key) const {
        return slots[slot].key == key ? slots[slot].element.get() : nullptr;
    }
    template <class F>
    void each(F&& f) const {
        for (const Slot& slot : slots) f(*slot.element);
    }
};

// The same hash and comparison for all.
struct Hash {
    using is_avalanching = void;
    size_t operator()(const PathKey& key) const { return Vel::Codec<PathKey>::mix(key); }
};
struct Equal {
    bool operator()(const PathKey& a, const PathKey& b) const {
        return std::memcmp(&a, &b, sizeof a) == 0;
    }
};

using Pointer = Vel::Ptr<Element>;

template <class Map>
struct Peer {
    Map map;
    const Element* find(const PathKey& key) const {
        const auto found = map.find(key);
        return found == map.end() ? nullptr : found->second.get();
    }
    void insert(const PathKey& key) { map.emplace(key, Vel::make<Element>(key)); }
    void erase(const PathKey& key) { map.erase(key); }
    template <class F>
    void each(F&& f) const {
        for (const auto& [key, element] : map) f(*element);
    }
};

template <class Side>
void fill(Side& side, const std::vector<PathKey>& keys) {
    for (const PathKey& key : keys) side.insert(key);
}

template <class Side>
void lookup(benchmark::State& state, size_t count) {
    const auto keys = keysOf(count);
    Side side;
    fill(side, keys);
    // In an order without a pattern for the branch predictor.
    std::vector<U32> order(4096);
    std::mt19937 random(2);
    for (U32& slot : order) slot = random() % static_cast<U32>(count);
    size_t at = 0;
    for (auto _ : state) {
        const U32 slot = order[at++ % order.size()];
        const Element* element;
        if constexpr (std::is_same_v<Side, Known>)
            element = side.at(slot, keys[slot]);
        else
            element = side.find(keys[slot]);
        benchmark::DoNotOptimize(element->index());
    }
}

template <class Side>
void insert(benchmark::State& state) {
    const auto keys = keysOf(1023);
    for (auto _ : state) {
        Side side;
        fill(side, keys);
    }
    units(state, keys.size());
}

// Removes the oldest element and inserts one that was removed long ago.
template <class Side>
void churn(benchmark::State& state) {
    const auto keys = keysOf(2046);
    Side side;
    fill(side, std::vector(keys.begin(), keys.begin() + 1023));
    size_t oldest = 0;
    for (auto _ : state) {
        side.erase(keys[oldest % keys.size()]);
        side.insert(keys[(oldest + 1023) % keys.size()]);
        ++oldest;
    }
}

template <class Side>
void walk(benchmark::State& state) {
    const auto keys = keysOf(1023);
    Side side;
    fill(side, keys);
    for (auto _ : state) {
        U32 sum = 0;
        side.each([&](const Element& element) { sum += element.index(); });
        benchmark::DoNotOptimize(sum);
    }
    units(state, keys.size());
}

void addRow(const std::string& row, const char* side, void (*function)(benchmark::State&)) {
    benchmark::RegisterBenchmark((row + "/" + side).c_str(), function);
}
template <class Side>
void add(const char* side) {
    addRow("lookup-128", side, [](auto& state) { lookup<Side>(state, 128); });
    addRow("lookup-1023", side, [](auto& state) { lookup<Side>(state, 1023); });
    addRow("walk", side, walk<Side>);
    if constexpr (!std::is_same_v<Side, Known>) {
        addRow("insert", side, insert<Side>);
        addRow("churn", side, churn<Side>);
    }
}

const bool added = [] {
    add<Ours>("ours");
    add<Known>("limit");
#ifdef BENCH_ROBIN_MAP
    add<Peer<tsl::robin_map<PathKey, Pointer, Hash, Equal>>>("tsl::robin_map");
#endif
#ifdef BENCH_BOOST_FLAT_MAP
    add<Peer<boost::unordered_flat_map<PathKey, Pointer, Hash, Equal>>>(
        "boost::unordered_flat_map");
#endif
#ifdef BENCH_ABSL
    add<Peer<absl::flat_hash_map<PathKey, Pointer, Hash, Equal>>>("absl::flat_hash_map");
#endif
    add<Peer<std::unordered_map<PathKey, Pointer, Hash, Equal>>>("std::unordered_map");
    return true;
}();

}  // namespace
}  // namespace Bench

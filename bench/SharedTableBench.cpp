// Shared-memory tables: reads with the writer idle and writing continuously, writes, following
// changes.
#include <array>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/Bench.h"
#include "bench/RunDirectory.h"
#include "platform/shard/Map.h"

#ifdef BENCH_INTERPROCESS
#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#endif
#ifdef BENCH_LMDB
#include <lmdb.h>
#endif
#ifdef BENCH_TDB
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
extern "C" {
#include <tdb.h>
}
#endif

namespace Bench {
namespace {

constexpr U32 entries = 1023;

template <size_t bytes>
struct Content {
    std::array<std::byte, bytes> data{};
};

// By default the compiler copies large values of a known size with a slow instruction.
[[gnu::noipa]] void copyLarge(void* to, const void* from, size_t bytes) {
    std::memcpy(to, from, bytes);
}
template <class Value>
void copyValue(void* to, const void* from) {
    if constexpr (sizeof(Value) > 256)
        copyLarge(to, from, sizeof(Value));
    else
        std::memcpy(to, from, sizeof(Value));
}

// Keys without a pattern, for as many entries as fit into a quarter of a megabyte.
template <class Value>
std::array<U32, 4096> keysInUse() {
    std::mt19937 random(1);
    std::array<U32, 4096> keys;
    for (U32& key : keys) key = random() % std::min<U32>(entries, (1 << 18) / sizeof(Value));
    return keys;
}

// Each side: a table of 1023 entries with read(key, value) and write(key, value). Tables that hash
// here use our hash.
template <class Value>
struct Ours {
    static constexpr bool isShared = true;  // may be read and written concurrently
    using Map = Shard::Map<U32, Value>;
    RunDirectory directory;
    typename Map::Writer writer{directory.space(), "bench", entries};
    typename Map::Reader reader{directory.space(), "bench"};
    Ours() {
        for (U32 key = 0; key < entries; ++key) write(key, {});
        writer.mountComplete();
        reader.update();
    }
    bool read(U32 key, Value& value) const {
        return reader.find(key, value) == Shard::Lookup::found;
    }
    void write(U32 key, const Value& value) { writer.valueIs(key, value); }
};

// Probe and copy, without a check whether a copy is complete. With concurrent reads and writes it
// shows the cost that remains: the transfer from one core's cache to the other's.
template <class Value>
struct Local {
    static constexpr bool isShared = true;
    struct Slot {
        U32 key = 0;
        bool used = false;
        Value value;
    };
    std::vector<Slot> slots{2048};
    Local() {
        for (U32 key = 0; key < entries; ++key) write(key, {});
    }
    Slot& slotOf(U32 key) {
        U64 at = Netz::hashMix(0, key) % 2048;
        while (slots[at].used && slots[at].key != key) at = (at + 1) % slots.size();
        return slots[at];
    }
    bool read(U32 key, Value& value) {
        const Slot& slot = slotOf(key);
        if (slot.used) copyValue<Value>(&value, &slot.value);
        return slot.used;
    }
    void write(U32 key, const Value& value) {
        Slot& slot = slotOf(key);
        slot.key = key;
        slot.used = true;
        copyValue<Value>(&slot.value, &value);
    }
};

#ifdef BENCH_INTERPROCESS
namespace ipc = boost::interprocess;

// The same probe and copy under the mutex.
template <class Value>
struct Interprocess {
    static constexpr bool isShared = true;
    struct Shared {
        ipc::interprocess_mutex mutex;
        struct Slot {
            U32 key = 0;
            bool used = false;
            Value value;
        } slots[2048];
    };
    std::string name = "bench-interprocess-" + std::to_string(::getpid());
    ipc::managed_shared_memory memory{ipc::create_only, name.c_str(), sizeof(Shared) + (1 << 16)};
    Shared& shared = *memory.construct<Shared>("shared")();
    Interprocess() {
        for (U32 key = 0; key < entries; ++key) write(key, {});
    }
    ~Interprocess() { ipc::shared_memory_object::remove(name.c_str()); }
    auto& slotOf(U32 key) {
        U64 at = Netz::hashMix(0, key) % 2048;
        while (shared.slots[at].used && shared.slots[at].key != key) at = (at + 1) % 2048;
        return shared.slots[at];
    }
    bool read(U32 key, Value& value) {
        const ipc::scoped_lock lock(shared.mutex);
        const auto& slot = slotOf(key);
        if (slot.used) copyValue<Value>(&value, &slot.value);
        return slot.used;
    }
    void write(U32 key, const Value& value) {
        const ipc::scoped_lock lock(shared.mutex);
        auto& slot = slotOf(key);
        slot.key = key;
        slot.used = true;
        copyValue<Value>(&slot.value, &value);
    }
};
#endif

#ifdef BENCH_LMDB
// Durability is not required here, so nothing is synced.
template <class Value>
struct Lmdb {
    static constexpr bool isShared = true;
    RunDirectory directory;
    MDB_env* env = nullptr;
    MDB_txn* reading = nullptr;
    MDB_dbi dbi = 0;
    Lmdb() {
        mdb_env_create(&env);
        mdb_env_set_mapsize(env, size_t{64} << 20);
        mdb_env_open(env, directory.path().c_str(), MDB_NOSYNC | MDB_WRITEMAP | MDB_NOTLS, 0600);
        MDB_txn* txn;
        mdb_txn_begin(env, nullptr, 0, &txn);
        mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &dbi);
        mdb_txn_commit(txn);
        for (U32 key = 0; key < entries; ++key) write(key, {});
        mdb_txn_begin(env, nullptr, MDB_RDONLY, &reading);
        mdb_txn_reset(reading);
    }
    ~Lmdb() {
        mdb_txn_abort(reading);
        mdb_env_close(env);
    }
    bool read(U32 key, Value& value) {
        mdb_txn_renew(reading);
        MDB_val k{sizeof key, &key}, v;
        const bool found = mdb_get(reading, dbi, &k, &v) == 0;
        if (found) copyValue<Value>(&value, v.mv_data);
        mdb_txn_reset(reading);
        return found;
    }
    void write(U32 key, const Value& value) {
        MDB_txn* txn;
        mdb_txn_begin(env, nullptr, 0, &txn);
        MDB_val k{sizeof key, &key}, v{sizeof value, const_cast<Value*>(&value)};
        mdb_put(txn, dbi, &k, &v, 0);
        mdb_txn_commit(txn);
    }
};
#endif

#ifdef BENCH_TDB
template <class Value>
struct Tdb {
    static constexpr bool isShared = false;  // one context, one thread
    RunDirectory directory;
    tdb_context* tdb =
        tdb_open((directory.path() + "/bench.tdb").c_str(), 4099,
                 TDB_NOSYNC | TDB_MUTEX_LOCKING | TDB_CLEAR_IF_FIRST | TDB_INCOMPATIBLE_HASH,
                 O_RDWR | O_CREAT, 0600);
    Tdb() {
        for (U32 key = 0; key < entries; ++key) write(key, {});
    }
    ~Tdb() { tdb_close(tdb); }
    static TDB_DATA data(const void* bytes, size_t size) {
        return {static_cast<unsigned char*>(const_cast<void*>(bytes)), size};
    }
    bool read(U32 key, Value& value) {
        const auto copy = [](TDB_DATA, TDB_DATA found, void* to) {
            copyValue<Value>(to, found.dptr);
            return 0;
        };
        return tdb_parse_record(tdb, data(&key, sizeof key), copy, &value) == 0;
    }
    void write(U32 key, const Value& value) {
        tdb_store(tdb, data(&key, sizeof key), data(&value, sizeof value), TDB_REPLACE);
    }
};
#endif

template <class Side, class Value>
void readAll(benchmark::State& state, Side& side) {
    const auto keys = keysInUse<Value>();
    Value value;
    size_t at = 0;
    bool found = true;
    for (auto _ : state) {
        found &= opaque(&side)->read(keys[++at % keys.size()], value);
        benchmark::DoNotOptimize(value);
    }
    if (!found) state.SkipWithError("a key was not found");
}
template <class Side, class Value>
void read(benchmark::State& state) {
    Side side;
    readAll<Side, Value>(state, side);
}
template <class Side, class Value>
void contended(benchmark::State& state) {
    Side side;
    std::atomic<bool> stop = false;
    std::jthread writer([&] {
        const auto keys = keysInUse<Value>();
        const Value value;
        for (size_t at = 1; !stop.load(std::memory_order_relaxed);)
            side.write(keys[++at % keys.size()], value);
    });
    readAll<Side, Value>(state, side);
    stop = true;
}
template <class Side, class Value>
void write(benchmark::State& state) {
    Side side;
    const auto keys = keysInUse<Value>();
    const Value value;
    size_t at = 0;
    for (auto _ : state) opaque(&side)->write(keys[++at % keys.size()], value);
}

// Many readers read the same changes, since one reading is too short for a clock.
void changes(benchmark::State& state, U32 tableEntries) {
    using Map = Shard::Map<U32, Content<104>>;
    constexpr size_t changed = 16, readers = 64;
    const RunDirectory directory;
    Map::Writer writer(directory.space(), "bench", tableEntries);
    for (U32 key = 0; key < tableEntries; ++key) writer.valueIs(key, {});
    (void)writer.commit();
    std::vector<std::unique_ptr<Map::Reader>> followers;
    for (size_t i = 0; i < readers; ++i) {
        followers.push_back(std::make_unique<Map::Reader>(writer));
        followers.back()->changes([](U32) {});
    }
    U64 notified = 0;
    U32 key = 0;
    for (auto _ : state) {
        for (size_t i = 0; i < changed; ++i) writer.valueIs((key += 61) % tableEntries, {});
        (void)writer.commit();
        timed(state, [&] {
            for (const auto& reader : followers)
                reader->changes([&](U32 k) { notified += k < tableEntries; });
        });
    }
    if (notified != U64(state.iterations()) * changed * readers)
        state.SkipWithError("a change was not notified");
    units(state, changed * readers);
}

template <class Side, class Value>
void add(const std::string& size, const char* side) {
    const auto row = [&](const char* name, void (*function)(benchmark::State&), bool wall) {
        auto* row = benchmark::RegisterBenchmark((name + size + "/" + side).c_str(), function);
        if (wall) row->UseRealTime();
    };
    row("read-", read<Side, Value>, false);
    if constexpr (Side::isShared) row("contended-", contended<Side, Value>, true);
    row("write-", write<Side, Value>, false);
}
template <size_t bytes>
void addAll(const std::string& size) {
    using Value = Content<bytes>;
    add<Ours<Value>, Value>(size, "ours");
    add<Local<Value>, Value>(size, "limit");
#ifdef BENCH_LMDB
    add<Lmdb<Value>, Value>(size, "LMDB");
#endif
#ifdef BENCH_INTERPROCESS
    add<Interprocess<Value>, Value>(size, "Boost.Interprocess");
#endif
#ifdef BENCH_TDB
    add<Tdb<Value>, Value>(size, "TDB");
#endif
}

const bool added = [] {
    addAll<104>("104");
    addAll<4096>("4096");
    return true;
}();

BENCHMARK_CAPTURE(changes, , 1023)->UseManualTime()->Name("changes-1023/ours");
BENCHMARK_CAPTURE(changes, , 4092)->UseManualTime()->Name("changes-4092/ours");

}  // namespace
}  // namespace Bench

// Readers beside a writer at full speed: no value is ever torn or another key's, and a key that is
// there all the time is always found, however much its neighbours in the index come and go.
#include <atomic>
#include <thread>

#include "tests/shard/ShardTest.h"

namespace Shard {
namespace {

using namespace std::chrono_literals;

constexpr uint32_t steady = 24, passing = 40;  // keys 0..23 stay, 24..63 come and go

template <size_t words>
struct PlainRace {
    using Table = Map<uint32_t, Checked<words>>;
    using Value = Checked<words>;
    static auto writer(const Namespace& space) {
        return std::make_unique<typename Table::Writer>(space, "race", 64);
    }
    static Value value(uint32_t key, uint64_t version) { return Value::of(key, version); }
    static uint64_t version(const Value& value) { return value.version(); }
};
struct ListRace {
    using Table = ListMap<uint32_t, Record, 64>;
    using Value = std::vector<Record>;
    static auto writer(const Namespace& space) {
        return std::make_unique<Table::Writer>(space, "race", 64, 64 * 64);
    }
    static Value value(uint32_t key, uint64_t version) { return checkedList(key, version, 64); }
    static uint64_t version(const Value& value) { return value.empty() ? 0 : value[0].version(); }
};

template <class Kind>
class Race : public testing::Test {
  protected:
    using Writer = typename Kind::Table::Writer;
    using Reader = typename Kind::Table::Reader;
    static constexpr auto length = 700ms;

    struct Board {
        std::atomic<bool> started, stop;
        std::atomic<uint64_t> reads, writes;
    };

    void fill(Writer& writer) {
        for (uint32_t key = 0; key < steady; ++key) writer.valueIs(key, Kind::value(key, 0));
        writer.mountComplete();
        writer.commit();
    }
    void write(Writer& writer) {
        Random random(7);
        for (uint64_t version = 1; !board_.stop; ++version) {
            const auto key = static_cast<uint32_t>(below(random, 2 * steady + passing));
            if (key >= steady + passing) {
                writer.valueIs(0, Kind::value(0, version));  // one key is hotter than the others
            } else if (key < steady || version % 2) {
                writer.valueIs(key, Kind::value(key, version));
            } else {
                writer.valueDel(key);
            }
            if (version % 16 == 0) writer.commit();
            board_.writes = version;
        }
        writer.commit();
    }
    // 0, or what was wrong.
    int read(Reader& reader, uint64_t seed) {
        Random random(seed);
        typename Kind::Value value;
        std::vector<uint64_t> newest(steady + passing);
        const auto check = [&](uint32_t key) {
            const uint64_t version = Kind::version(value);
            if (value != Kind::value(key, version)) return 1;
            return std::exchange(newest[key], version) > version ? 2 : 0;
        };
        while (!board_.stop) {
            const auto key = static_cast<uint32_t>(below(random, steady + passing));
            switch (reader.find(key, value)) {
                case Lookup::found:
                    if (const int wrong = check(key)) return wrong;
                    break;
                case Lookup::absent:
                    if (key < steady) return 3;
                    break;
                case Lookup::busy:
                    break;
                case Lookup::corrupt:
                    return 4;
            }
            if (++board_.reads % 256) continue;
            reader.update();
            bool there[steady + passing] = {}, wrong = false;
            const bool complete = reader.forEach([&](uint32_t walked, const auto& v) {
                wrong |= v != Kind::value(walked, Kind::version(v));
                there[walked] = true;
            });
            for (uint32_t k = 0; k < steady; ++k) wrong |= complete && !there[k];
            reader.changes([&](uint32_t changed) { wrong |= changed >= steady + passing; });
            if (wrong) return 5;
        }
        return reader.corruptions() ? 6 : 0;
    }
    void runFor() {
        const auto end = std::chrono::steady_clock::now() + length;
        while (board_.reads < 1000 || std::chrono::steady_clock::now() < end) {
            ASSERT_LT(std::chrono::steady_clock::now(), end + 30s);
            std::this_thread::yield();
        }
        board_.stop = true;
    }

    RunDirectory run_;
    Board& board_ = shared<Board>();
};

using Kinds = testing::Types<PlainRace<13>, PlainRace<512>, ListRace>;
TYPED_TEST_SUITE(Race, Kinds);

TYPED_TEST(Race, BetweenProcesses) {
    Child writer([&] {
        auto writer = TypeParam::writer(this->run_.space);
        this->fill(*writer);
        this->board_.started = true;
        this->write(*writer);
        return 0;
    });
    std::vector<std::unique_ptr<Child>> readers;
    for (uint64_t seed : {1, 2, 3}) {
        readers.push_back(std::make_unique<Child>([&, seed] {
            typename TypeParam::Table::Reader reader(this->run_.space, "race");
            while (reader.update() != MapState::mounted) {
                if (!reader.await(10s)) return 10;
            }
            return this->read(reader, seed);
        }));
    }
    this->runFor();
    for (auto& reader : readers) EXPECT_EQ(reader->wait(), 0);
    EXPECT_EQ(writer.wait(), 0);
}

TYPED_TEST(Race, BetweenThreads) {
    auto writer = TypeParam::writer(this->run_.space);
    this->fill(*writer);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (uint64_t seed : {1, 2}) {
        threads.emplace_back([&, seed] {
            typename TypeParam::Table::Reader reader(*writer);
            wrong += this->read(reader, seed);
        });
    }
    threads.emplace_back([&] { this->write(*writer); });
    this->runFor();
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace Shard

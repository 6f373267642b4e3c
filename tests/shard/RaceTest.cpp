// Readers beside a writer at full speed: no value is ever torn or another key's, and a key that is
// there all the time is found.
#include <atomic>
#include <thread>

#include "tests/shard/ShardTest.h"

namespace Shard {
namespace {

using namespace std::chrono_literals;

constexpr uint32_t steady = 24, keys = 64;  // the first keys stay, the others come and go

template <class Kind>
class Race : public testing::Test {
  protected:
    using Writer = typename Kind::Table::Writer;
    using Reader = typename Kind::Table::Reader;
    static constexpr auto length = 700ms;

    struct Board {
        std::atomic<bool> started, stop;
        std::atomic<uint64_t> reads;
    };

    void open(Writer& writer) {
        for (uint32_t key = 0; key < steady; ++key) writer.valueIs(key, Kind::value(key, 0));
        writer.mountComplete();
        writer.commit();
    }
    void write(Writer& writer) {
        Random random(7);
        for (uint64_t version = 1; !board_.stop; ++version) {
            const auto key = static_cast<uint32_t>(below(random, 2) * below(random, keys));
            if (key < steady || version % 2) {
                writer.valueIs(key, Kind::value(key, version));
            } else {
                writer.valueDel(key);
            }
            if (version % 16 == 0) writer.commit();
        }
    }
    // 0, or what was wrong.
    int read(Reader& reader, uint64_t seed) {
        Random random(seed);
        typename Kind::Value value;
        std::vector<uint64_t> newest(keys);
        while (!board_.stop) {
            const auto key = static_cast<uint32_t>(below(random, keys));
            const Lookup result = reader.find(key, value);
            if (result == Lookup::found) {
                const uint64_t version = Kind::version(value);
                if (value != Kind::value(key, version)) return 1;
                if (std::exchange(newest[key], version) > version) return 2;
            }
            if (result == Lookup::absent && key < steady) return 3;
            if (result == Lookup::corrupt) return 4;
            if (++board_.reads % 256) continue;
            reader.update();
            bool right = true;
            reader.forEach([&](uint32_t walked, const auto& v) {
                right &= v == Kind::value(walked, Kind::version(v));
            });
            reader.changes([&](uint32_t changed) { right &= changed < keys; });
            if (!right) return 5;
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

using Kinds = testing::Types<PlainKind<13>, PlainKind<512>, ListKind<64>>;
TYPED_TEST_SUITE(Race, Kinds);

TYPED_TEST(Race, BetweenProcesses) {
    Child writer([&] {
        auto writer = TypeParam::writer(this->run_.space, keys);
        this->open(*writer);
        this->board_.started = true;
        this->write(*writer);
        return 0;
    });
    std::vector<std::unique_ptr<Child>> readers;
    for (uint64_t seed : {1, 2, 3}) {
        readers.push_back(std::make_unique<Child>([&, seed] {
            typename TypeParam::Table::Reader reader(this->run_.space, "map");
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
    auto writer = TypeParam::writer(this->run_.space, keys);
    this->open(*writer);
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

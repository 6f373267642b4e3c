// A writer killed at a random moment, a thousand times over: readers go on, and the next writer
// finds every value that was there.
#include <atomic>
#include <thread>

#include "tests/shard/ShardTest.h"

namespace Shard {
namespace {

constexpr uint32_t keys = 48;
constexpr uint64_t gone = 0;  // the version of a key that is not there

// What the writer has done and is about to do, in memory that outlives it.
struct Journal {
    std::atomic<uint64_t> done[keys];
    std::atomic<uint32_t> key;
    std::atomic<uint64_t> next, progress;
};

template <class Kind>
class Death : public testing::Test {
  protected:
    using Reader = typename Kind::Table::Reader;

    int live(uint64_t seed, bool first) {
        Random random(seed);
        const auto made = Kind::writer(run_.space, keys);
        auto& writer = *made;
        if (writer.tookOver() == first) return 2;
        uint64_t there = 0;
        for (uint32_t key = 0; key < keys; ++key) there += settle(writer, key) != gone;
        if (writer.count() != there) return 3;
        writer.mountComplete();
        for (uint64_t version = seed << 32 | 1;; ++version) {
            const auto key = static_cast<uint32_t>(below(random, keys));
            const uint64_t next = below(random, 3) ? version : gone;
            journal_.key = key;
            journal_.next = next;
            if (next == gone) {
                writer.valueDel(key);
            } else {
                writer.valueIs(key, Kind::value(key, next));
            }
            journal_.done[key] = next;
            if (below(random, 4) == 0) writer.commit();
            ++journal_.progress;
        }
    }
    // The version that a take-over found; asserts by the exit code that it is one it may be.
    uint64_t settle(const typename Kind::Table::Writer& writer, uint32_t key) {
        typename Kind::Value value;
        const uint64_t found = writer.find(key, value) ? Kind::version(value) : gone;
        if (found != gone && value != Kind::value(key, found)) _exit(4);
        if (found != journal_.done[key] && (key != journal_.key || found != journal_.next))
            _exit(5);
        journal_.done[key] = found;
        return found;
    }
    void expectAsDone(const Reader& reader) {
        typename Kind::Value value;
        for (uint32_t key = 0; key < keys; ++key) {
            const Lookup result = reader.find(key, value);
            ASSERT_TRUE(result == Lookup::found || result == Lookup::absent);
            const uint64_t found = result == Lookup::found ? Kind::version(value) : gone;
            if (found != journal_.done[key]) {
                ASSERT_EQ(key, journal_.key);
                ASSERT_EQ(found, journal_.next);
            }
            if (found != gone) {
                ASSERT_EQ(value, Kind::value(key, found));
            }
        }
    }

    RunDirectory run_;
    Journal& journal_ = shared<Journal>();
};

using Kinds = testing::Types<PlainKind<40>, ListKind<32>>;
TYPED_TEST_SUITE(Death, Kinds);

TYPED_TEST(Death, LeavesEveryValueToReadersAndToTheNextWriter) {
    Random random = seeded(31337);
    typename TypeParam::Table::Reader reader(this->run_.space, "map");
    const auto limit = deadline(60);
    for (uint64_t life = 1; life <= 500 && !this->HasFatalFailure(); ++life) {
        this->journal_.progress = 0;
        Child writer([&] { return this->live(life, life == 1); });
        const uint64_t enough = 1 + below(random, 1 << below(random, 10));
        while (this->journal_.progress < enough) {
            ASSERT_FALSE(passed(limit)) << "life " << life << " ended with " << writer.wait();
            std::this_thread::yield();
        }
        writer.kill();
        reader.update();
        EXPECT_EQ(reader.state(), MapState::mounted);
        EXPECT_FALSE(reader.writerAlive());
        this->expectAsDone(reader);
    }
    const auto writer = TypeParam::writer(this->run_.space, keys);
    ASSERT_TRUE(writer->tookOver());
    writer->commit();
    this->expectAsDone(reader);
    uint64_t walked = 0;
    EXPECT_TRUE(reader.forEach([&](uint32_t, const auto&) { ++walked; }));
    EXPECT_EQ(walked, writer->count());
    EXPECT_EQ(reader.corruptions(), 0u);
}

}  // namespace
}  // namespace Shard

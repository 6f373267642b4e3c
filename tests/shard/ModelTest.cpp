// Random operations against a plain map: what lookups, walks and told changes say must be what the
// model says, across take-overs, restarts, full maps, scattered heaps and attacks on the segment.
#include <gtest/gtest.h>

#include <unordered_map>

#include "tests/shard/ShardTest.h"

namespace Shard {
namespace {

using namespace std::chrono_literals;

// One and a half words, told apart by the half one.
struct Key {
    uint32_t site, zone, vrf;
    bool operator==(const Key&) const = default;
};
struct KeyHash {
    size_t operator()(const Key& key) const { return key.site * 31 + key.vrf; }
};
constexpr uint32_t sites = 25, vrfs = 4, capacity = 64;

struct Plain : Map<Key, Checked<13>> {
    static constexpr uint64_t listBytes = 0;
    static Value value(Random& random) { return Value::any(random); }
};

// The heap is so small that lists run out of room, and room must be found between them.
struct Lists : ListMap<Key, Record, 512> {
    static constexpr uint64_t listBytes = 500 * sizeof(Record);
    static Value value(Random& random) {
        Value list(below(random, below(random, 3) ? 60 : 513));
        for (auto& record : list) record = Record::any(random);
        return list;
    }
};

template <class Kind>
class Model : public testing::Test {
  protected:
    using Value = typename Kind::Value;
    using Contents = std::unordered_map<Key, Value, KeyHash>;

    void expectEqual(const typename Kind::Reader& reader) {
        Value value;
        for (uint32_t i = 0; i < sites * vrfs; ++i) {
            const Key key{i / vrfs, 0, i % vrfs};
            const auto expected = model_.find(key);
            const bool present = expected != model_.end();
            ASSERT_EQ(reader.find(key, value), present ? Lookup::found : Lookup::absent) << i;
            ASSERT_TRUE(!present || value == expected->second) << i;
        }
        ASSERT_EQ(reader.count(), model_.size());
    }
    // Keeps `mirror_` in step by nothing but what the reader is told, once it is woken.
    void follow(typename Kind::Reader& reader) {
        const bool woken = reader.await(0ms);
        reader.update();
        const News news = reader.changes([&](const Key& key) {
            Value value;
            if (reader.find(key, value) == Lookup::found) {
                mirror_[key] = value;
            } else {
                mirror_.erase(key);
            }
        });
        EXPECT_TRUE(woken || news == News::none);
        EXPECT_TRUE(news == News::everything || !reader.await(0ms)) << "woken for nothing";
        if (news == News::everything) {
            mirror_.clear();
            EXPECT_TRUE(reader.forEach([&](const auto& k, const auto& v) { mirror_[k] = v; }));
        }
        ASSERT_EQ(mirror_, model_);
    }
    void begin(bool takesOver) {
        if (takesOver) vandal_.keepName();
        writer_.reset();
        if (takesOver) vandal_.restoreName();
        writer_ = std::make_unique<typename Kind::Writer>(space_, "map", capacity, Kind::listBytes);
        if (!takesOver) model_.clear();
    }
    void put(const Key& key, const Value& value) {
        try {
            writer_->valueIs(key, value);
            model_[key] = value;
            EXPECT_LE(model_.size(), capacity);
        } catch (const Vel::Error&) {
            ++refused_;  // and the model stays as it is
        }
    }
    void step(Random& random) {
        const uint64_t choice = below(random, 1000);
        const Key key{static_cast<uint32_t>(below(random, sites)), 0,
                      static_cast<uint32_t>(below(random, vrfs))};
        if (choice < 750) {
            put(key, Kind::value(random));
        } else if (choice < 985) {
            EXPECT_EQ(writer_->valueDel(key), model_.erase(key) == 1);
        } else if (choice < 990) {
            writer_->clear();
            model_.clear();
        } else {
            begin(choice < 997);
        }
    }
    // A commit notices. Neither readers nor the next writer lose more keys than words were damaged.
    void attack(Random& random, const typename Kind::Reader& reader) {
        const bool lost = vandal_.attack(random);
        Value value;
        uint64_t found = 0;
        for (const auto& [key, expected] : model_)
            found += reader.find(key, value) == Lookup::found && value == expected;
        EXPECT_TRUE(lost || found + 1 >= model_.size());
        if (below(random, 2)) {
            const Contents before = std::exchange(model_, {});
            EXPECT_FALSE(writer_->commit());
            EXPECT_EQ(writer_->count(), 0u);
            for (const auto& [key, value] : before) put(key, value);
        } else {
            begin(!lost);
            EXPECT_LE(
                std::erase_if(model_, [&](auto& i) { return !writer_->find(i.first, value); }), 1u);
        }
    }

    TempDir run_;
    Namespace space_{run_.path};
    Vandal vandal_{space_.fileOf("map")};
    std::unique_ptr<typename Kind::Writer> writer_;
    Contents model_, mirror_;
    int refused_ = 0;
};

using Kinds = testing::Types<Plain, Lists>;
TYPED_TEST_SUITE(Model, Kinds);

TYPED_TEST(Model, ReadersSeeWhatWasWritten) {
    Random random(20240611);
    alarm(200);  // whatever stands under the name, nobody waits for it
    this->begin(false);
    typename TypeParam::Reader reader(this->space_, "map");
    reader.update();
    for (int round = 0; round < 800 && !this->HasFailure(); ++round) {
        const uint64_t steps = below(random, round % 50 ? 12 : 400);  // more than the ring holds
        for (uint64_t i = 0; i < steps; ++i) this->step(random);
        EXPECT_TRUE(this->writer_->commit());
        this->follow(reader);
        if (round % 4 == 0) {
            this->attack(random, reader);
            EXPECT_TRUE(this->writer_->commit());
            this->follow(reader);
        }
        this->expectEqual(reader);
    }
    EXPECT_GT(this->refused_, 10);  // the map was full at times
    alarm(0);
}

}  // namespace
}  // namespace Shard

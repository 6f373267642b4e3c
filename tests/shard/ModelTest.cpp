// Random operations against a plain map: what lookups, walks and told changes say must be what the
// model says, across take-overs, restarts, full maps and scattered heaps.
#include <unordered_map>

#include "tests/shard/ShardTest.h"

namespace Shard {
namespace {

// One and a half words, told apart by the half one.
struct Key {
    uint32_t site, zone, vrf;
    bool operator==(const Key&) const = default;
};
struct KeyHash {
    size_t operator()(const Key& key) const { return key.site * 31 + key.vrf; }
};
constexpr uint32_t sites = 25, vrfs = 4, capacity = 64;

struct Plain {
    using Table = Map<Key, Checked<13>>;
    using Value = Checked<13>;
    static auto writer(const Namespace& space) {
        return std::make_unique<Table::Writer>(space, "model", capacity);
    }
    static Value value(Random& random) { return Value::of(random(), random()); }
};

// The heap is so small that lists run out of room, and room must be found between them.
struct Lists {
    using Table = ListMap<Key, Record, 512>;
    using Value = std::vector<Record>;
    static auto writer(const Namespace& space) {
        return std::make_unique<Table::Writer>(space, "model", capacity, 500 * sizeof(Record));
    }
    static Value value(Random& random) {
        Value list(below(random, below(random, 3) ? 60 : 513));
        for (auto& record : list) record = Record::of(random(), random());
        return list;
    }
};

template <class Kind>
class Model : public testing::Test {
  protected:
    using Reader = typename Kind::Table::Reader;
    using Value = typename Kind::Value;
    using Contents = std::unordered_map<Key, Value, KeyHash>;

    void expectEqual(const Reader& reader) {
        Value value;
        for (uint32_t i = 0; i < sites * vrfs; ++i) {
            const Key key{i / vrfs, 0, i % vrfs};
            const auto expected = model_.find(key);
            const bool there = expected != model_.end();
            ASSERT_EQ(reader.find(key, value), there ? Lookup::found : Lookup::absent) << i;
            if (there) {
                ASSERT_EQ(value, expected->second) << i;
            }
        }
        Contents walked;
        EXPECT_TRUE(reader.forEach([&](const Key& key, const Value& v) { walked[key] = v; }));
        ASSERT_EQ(walked, model_);
        ASSERT_EQ(reader.count(), model_.size());
    }
    // Keeps `mirror_` in step by nothing but what the reader is told.
    void follow(Reader& reader) {
        reader.update();
        const News news = reader.changes([&](const Key& key) {
            Value value;
            if (reader.find(key, value) == Lookup::found) {
                mirror_[key] = value;
            } else {
                mirror_.erase(key);
            }
        });
        if (news == News::everything) {
            mirror_.clear();
            reader.forEach([&](const Key& key, const Value& value) { mirror_[key] = value; });
        }
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
        if (choice < 600) {
            put(key, Kind::value(random));
        } else if (choice < 985) {
            EXPECT_EQ(writer_->valueDel(key), model_.erase(key) == 1);
        } else if (choice < 990) {
            writer_->clear();
            model_.clear();
        } else if (choice < 997) {  // gone without a word, perhaps with changes not committed
            writer_->leave();
            writer_ = Kind::writer(run_.space);
            EXPECT_TRUE(writer_->tookOver());
        } else {
            writer_.reset();
            writer_ = Kind::writer(run_.space);
            EXPECT_FALSE(writer_->tookOver());
            model_.clear();
        }
    }

    RunDirectory run_;
    std::unique_ptr<typename Kind::Table::Writer> writer_ = Kind::writer(run_.space);
    Contents model_, mirror_;
    int refused_{0};
};

using Kinds = testing::Types<Plain, Lists>;
TYPED_TEST_SUITE(Model, Kinds);

TYPED_TEST(Model, ReadersSeeWhatWasWritten) {
    Random random = seeded(20240611);
    typename TypeParam::Table::Reader reader(this->run_.space, "model"),
        lazy(this->run_.space, "model");
    for (int round = 0; round < 800 && !this->HasFatalFailure(); ++round) {
        const uint64_t steps = below(random, round % 50 ? 12 : 400);  // more than the ring holds
        for (uint64_t i = 0; i < steps; ++i) this->step(random);
        this->writer_->commit();
        this->follow(reader);
        ASSERT_EQ(this->mirror_, this->model_) << "round " << round;
        this->expectEqual(reader);
        if (round % 7 == 0) lazy.update();
    }
    EXPECT_GT(this->refused_, 10);  // the map was full at times
    lazy.update();
    this->expectEqual(lazy);
    this->expectEqual(typename TypeParam::Table::Reader(*this->writer_));
    EXPECT_EQ(reader.corruptions() + lazy.corruptions(), 0u);
}

}  // namespace
}  // namespace Shard

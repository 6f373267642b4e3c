// What random races seldom hit, tried at every point: a lookup is stopped after each number of
// instructions and the writer changes the map right there; a writer is killed after each number of
// instructions of each of its operations, and the next one must find all that was there.
#include <sys/ptrace.h>

#include <set>

#include "tests/shard/ShardTest.h"

namespace Shard {
namespace {

using Value = Checked<8>;
using Table = Map<uint32_t, Value>;
using Lists = ListMap<uint32_t, Record, 8>;

// A child that does `body` again and again, each time between two stops.
class Stepped {
  public:
    template <class Setup>
    explicit Stepped(Setup&& setup)
        : child_([&] {
              if (ptrace(PTRACE_TRACEME) != 0) return 77;
              auto body = setup();
              for (;;) {
                  raise(SIGSTOP);
                  body();
              }
              return 0;
          }) {
        allowed_ = stopped();
    }
    // A sanitizer's instructions are so many that stepping through them takes minutes.
    bool allowed() const {
#ifdef SHARD_ATOMIC_WORDS_ONLY
        return false;
#else
        return allowed_;
#endif
    }
    // False when the body ended before so many instructions.
    bool step(int instructions) {
        for (; instructions > 0; --instructions) {
            ptrace(PTRACE_SINGLESTEP, child_.pid(), 0, 0);
            if (!stopped() || signal_ != SIGTRAP) return false;
        }
        return true;
    }
    // To the end of the body; not after a step that said false.
    void finish() {
        do ptrace(PTRACE_CONT, child_.pid(), 0, 0);
        while (stopped() && signal_ != SIGSTOP);
    }
    void kill() {
        child_.kill();
    }

  private:
    bool stopped() {
        int status = 0;
        waitpid(child_.pid(), &status, 0);
        signal_ = WIFSTOPPED(status) ? WSTOPSIG(status) : 0;
        return WIFSTOPPED(status);
    }
    int signal_{0};
    bool allowed_;
    Child child_;
};

class Step : public testing::Test {
  protected:
    // Four keys that begin probing at one slot.
    Step() {
        const auto& table = writer_.segment()->table();
        for (uint64_t key = 0; key_.size() < 4; ++key) {
            if (table.home(table.hash(&key, 1)) == 3) key_.push_back(static_cast<uint32_t>(key));
        }
        for (const uint32_t key : key_) writer_.valueIs(key, Value::of(key, 0));
        writer_.commit();
    }
    // The first of the crowd goes, so that the others move towards its place.
    void removeFirst() {
        writer_.valueDel(key_[0]);
        std::rotate(key_.begin(), key_.begin() + 1, key_.end());
    }
    void putBack() { writer_.valueIs(key_[3], Value::of(key_[3], 0)); }

    RunDirectory run_;
    Table::Writer writer_{run_.space, "map", 32};
    std::vector<uint32_t> key_;
};

TEST_F(Step, ALookupFindsWhatMovesMeanwhile) {
    struct Board {
        uint32_t key;
        Lookup result;
        Value value;
    };
    Board& board = shared<Board>();
    board.key = key_[3];
    Stepped reading([&] {
        auto reader = std::make_shared<Table::Reader>(run_.space, "map");
        reader->update();
        return [reader, &board] { board.result = reader->find(board.key, board.value); };
    });
    if (!reading.allowed()) GTEST_SKIP() << "no process can be stepped through here";
    int length = 1;
    while (reading.step(1)) ++length;
    for (int point = 1; point < length && !HasFailure(); point += length / 100 + 1) {
        const bool within = reading.step(point);
        removeFirst();
        if (within) reading.finish();
        EXPECT_EQ(board.result, Lookup::found) << "after " << point << " instructions";
        EXPECT_TRUE(board.value.whole(board.key));
        putBack();
        board.key = key_[3];
    }
}

struct Interrupted : MapReader {
    using MapReader::find;
    using MapReader::MapReader;
};

// The writer works in the middle of the lookup, between the comparison of the key and the copy.
TEST_F(Step, ALookupSeesThatItsBlockIsReused) {
    const Interrupted reader(writer_);
    for (const uint64_t writes : {1U, Extents::rest, Extents::rest + 1, 3 * Extents::rest}) {
        const KeyWords<uint32_t> key(key_[2]);
        Value value;
        uint64_t attempts = 0, version = 100 * writes;
        writer_.valueIs(key_[2], Value::of(key_[2], version));
        const Lookup result = reader.find<Table::shape>(key.data(), [&](uint64_t) {
            for (uint64_t i = 0; attempts == 0 && i < writes; ++i) {
                writer_.valueIs(key_[2], Value::of(key_[2], ++version));
            }
            ++attempts;
            return &value;
        });
        EXPECT_EQ(result, Lookup::found);
        EXPECT_TRUE(value.whole(key_[2]));
        EXPECT_EQ(attempts, writes <= Extents::rest ? 1U : 2U);
        EXPECT_EQ(value.version(), attempts == 1 ? 100 * writes : version);
        // One that never gets a chance gives up.
        const auto always = [&](uint64_t) {
            for (uint64_t i = 0; i < 2 * Extents::rest; ++i) writer_.valueIs(key_[2], value);
            return &value;
        };
        EXPECT_EQ(reader.find<Table::shape>(key.data(), always), Lookup::busy);
    }
    EXPECT_EQ(reader.corruptions(), 0U);
}

// Between comparison and copy all lists go, and longer ones take their places, which begin in front
// of the list that is being read.
TEST_F(Step, ALookupSeesThatAnotherListLiesOverItsOwn) {
    using Longer = ListMap<uint32_t, Record, 400>;
    Longer::Writer writer(run_.space, "lists", 200);
    const Interrupted reader(writer);
    const auto fill = [&](uint32_t first, size_t length) {
        writer.clear();
        uint32_t key = first;
        const std::vector<Record> list(length, Record::of(first, length));
        EXPECT_THROW(for (;; ++key) writer.valueIs(key, list), Vel::Error);
        return key - first;
    };
    const uint32_t keys = fill(0, 100);
    for (uint32_t i = 0; i < keys; ++i) {
        const KeyWords<uint32_t> key(i);
        std::vector<Record> list;
        bool filled = false;
        const Lookup result = reader.find<Longer::shape>(key.data(), [&](uint64_t bytes) {
            if (!std::exchange(filled, true)) fill(1000, 250);
            list.resize(bytes / sizeof(Record));
            return list.data();
        });
        ASSERT_TRUE(filled);
        ASSERT_EQ(result, Lookup::absent) << i;
        fill(0, 100);
    }
}

TEST_F(Step, AWalkMeetsWhatMovesMeanwhile) {
    const Table::Reader reader(writer_);
    for (int point = 1; point <= 4; ++point) {
        std::set<uint32_t> met;
        int visits = 0;
        reader.forEach([&](uint32_t key, const Value&) {
            met.insert(key);
            if (++visits == point) removeFirst();
        });
        for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(met.count(key_[i]), 1U) << "point " << point;
        putBack();
    }
}

// `change` is done by a writer that dies in it; what it does not touch must be there as it was, and
// what it touches as before or after.
template <class Kind, class Change>
void dieWithin(Change&& change, auto&& valueOf, auto&&... sizes) {
    constexpr uint32_t touched = 2;
    for (int point = 1, stride = 1;; point += stride) {
        RunDirectory run;
        const auto make = [&] { return typename Kind::Writer(run.space, "map", sizes...); };
        // Two dozen keys in 64 slots: some stand behind others.
        Stepped dying([&] {
            auto writer = std::make_shared<typename Kind::Writer>(run.space, "map", sizes...);
            for (uint32_t key = 0; key < 24; ++key) writer->valueIs(key, valueOf(key, 0));
            writer->commit();
            return [writer, &change] { change(*writer); };
        });
        if (!dying.allowed()) GTEST_SKIP() << "no process can be stepped through here";
        const bool within = dying.step(point);
        dying.kill();
        auto next = make();
        ASSERT_TRUE(next.tookOver()) << point;
        typename Kind::Reader reader(next);
        auto value = valueOf(0, 0);
        uint64_t found = 0, walked = 0;
        for (uint32_t key = 0; key < 25; ++key) {
            if (reader.find(key, value) != Lookup::found) {
                ASSERT_TRUE(key == touched || key == 24) << "key " << key << " point " << point;
            } else {
                ASSERT_TRUE(value == valueOf(key, 0) ||
                            (value == valueOf(key, 1) && (key == touched || key == 24)));
                ++found;
            }
        }
        reader.forEach([&](uint32_t, const auto&) { ++walked; });
        ASSERT_EQ(walked, found) << point;
        ASSERT_EQ(next.count(), found) << point;
        if (!within) return;
        stride = point / 25 + 1;
    }
}

TEST(StepDeath, OfAWriterLosesNothing) {
    const auto value = [](uint32_t key, uint64_t version) { return Value::of(key, version); };
    const auto list = [](uint32_t key, uint64_t version) {
        return checkedList(key, 5 * version + key, 8);
    };
    dieWithin<Table>([&](auto& w) { w.valueIs(2, value(2, 1)); }, value, 26U);
    dieWithin<Table>([&](auto& w) { w.valueIs(24, value(24, 1)); }, value, 26U);
    dieWithin<Table>([&](auto& w) { w.valueDel(2); }, value, 26U);
    dieWithin<Lists>([&](auto& w) { w.valueIs(2, list(2, 1)); }, list, 26U, 200 * sizeof(Record));
}

}  // namespace
}  // namespace Shard

// Reactors of entries under random cascades, and reactors with their owner.
#include "tests/vel/VelTest.h"

namespace Test {

using Log = std::vector<std::string>;

// Each step in the life of an entry reactor is checked against the one before; each may change the
// collection it belongs to, and each but the clean-up may throw.
struct Cascade : testing::Test {
    struct Entry : Object {
        Entry(Cascade& test_, Leaf& leaf_) : test(test_), leaf(leaf_) {
            mode = Subscription::to<&Entry::handleMode>(*test.tree, Tree::modeAttr, this);
            test.step();
            test.mayThrow(&leaf);
            ++test.alive;
        }
        ~Entry() override {
            EXPECT_TRUE(clean);
            --test.alive;
        }
        void handleInitialized() {
            EXPECT_TRUE(!initialized && !clean && test.initialized);
            test.step();
            test.mayThrow(&leaf);
            initialized = true;
        }
        void handleDelete() {
            EXPECT_TRUE(!deleted && !clean && test.following);
            EXPECT_NE(test.tree->leaf(leaf.id()), &leaf);
            deleted = true;
            test.step();
            test.mayThrow(nullptr);
        }
        void doCleanup() {
            EXPECT_FALSE(clean);
            test.step();
            clean = true;
        }
        void handleMode() { EXPECT_FALSE(clean); }

        Cascade& test;
        Leaf& leaf;
        Subscription mode;
        bool initialized = false, deleted = false, clean = false;
    };
    using Entries = EntryReactorsOf<Entry, decltype(Tree::leafAttr)>;

    void mayThrow(Leaf* leftWithout) {
        if (random() % 8) return;
        if (leftWithout) failed.emplace_back(*leftWithout);
        throw 1;
    }
    void step() {
        if (depth > 4 || random() % 2) return;
        ++depth;
        const U32 key = random() % 6;
        try {
            switch (random() % 4) {
                case 0:
                    tree->leafDel(key);
                    break;
                case 1:  // another in its place
                    tree->leafDel(key);
                    [[fallthrough]];
                case 2:
                    tree->leafIs(key);
                    break;
                default:
                    tree->modeIs(static_cast<Mode>(random() % 3));
            }
        } catch (int) {
        }
        --depth;
    }
    void handleLeaf(const U32&) { step(); }

    Random random;
    Ptr<Tree> tree = make<Tree>("tree");
    std::vector<Ptr<Leaf>> failed;  // whose reactor threw before it was initialised
    U32 depth = 0;
    U32 alive = 0;
    bool initialized = false;
    bool following = false;
};

TEST_F(Cascade, EachElementHasOneReactor) {
    for (U32 seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        random.seed(seed);
        initialized = false;
        auto first = Subscription::to<&Cascade::handleLeaf>(*tree, Tree::leafAttr, this);
        std::optional<Entries> entries;
        following = true;
        while (!entries) {
            failed.clear();
            try {
                entries.emplace(*this, *tree, Tree::leafAttr);
            } catch (int) {
                ASSERT_EQ(alive, 0U) << "all or none are made at the beginning";
            }
        }
        auto last = Subscription::to<&Cascade::handleLeaf>(*tree, Tree::leafAttr, this);
        for (int i = 0; i < 200 && !HasFailure(); ++i) {
            if (i == 20) {
                initialized = true;
                try {
                    entries->initialize();
                } catch (int) {
                }
                entries->initialize();
            }
            step();
            ASSERT_EQ(alive, entries->all().size());
            for (Leaf& leaf : tree->leaf()) {
                const Entry* entry = (*entries)(leaf.id());
                if (!entry &&
                    std::find(failed.begin(), failed.end(), Ptr<Leaf>(leaf)) != failed.end())
                    continue;
                ASSERT_TRUE(entry && &entry->leaf == &leaf && !entry->deleted && !entry->clean);
                ASSERT_EQ(entry->initialized, initialized);
            }
        }
        following = false;  // with its owner: no delete handlers
        entries.reset();
        ASSERT_EQ(alive, 0U);
    }
}

struct Follower : Reactor {
    static constexpr std::string_view name = "Test::Follower";
    struct Inputs {
        Input<Tree> tree;
        U32 number = 0;
        Log* log = nullptr;
    };
    explicit Follower(const Inputs& inputs) : in(inputs) {}
    const Inputs& inputs() const { return in; }
    void handleInitialized() override {
        note("initialized");
        if (in.number == 13) throw 13;
    }
    void doCleanup() override { note("cleanup"); }
    void note(std::string text) { in.log->push_back(std::move(text)); }

    const Inputs in;
};
VEL_INPUTS(Follower::Inputs, tree, number, log)

struct ReactorTest : testing::Test {
    Log take() { return std::exchange(log, {}); }
    Log log;
    Ptr<Tree> tree = make<Tree>("tree");
    Follower::Inputs inputs{tree, 5, &log};
    Owned<Follower> owned;
    ReactorMap<U32, Follower> map;
};

TEST_F(ReactorTest, IsKeptForTheSameInputsAndRefusedForOthers) {
    EXPECT_EQ(&owned.is(inputs), &owned.is(inputs));
    Follower& first = map.is(1, inputs);
    EXPECT_EQ(&map.is(1, inputs), &first);
    EXPECT_NE(&map.is(2, inputs), &first);
    EXPECT_EQ(take(), (Log{"initialized", "initialized", "initialized"}));
    const Follower::Inputs null{{}, 5, &log}, number{tree, 13, &log},
        other{make<Tree>("t"), 13, &log};
    const auto refused = [&](const Follower::Inputs& in, const std::string& reason) {
        EXPECT_TRUE(errorOf([&] { owned.is(in); }).starts_with(reason));
        EXPECT_TRUE(errorOf([&] { map.is(2, in); }).starts_with(reason));
    };
    const std::string begin =
        "Reinstantiating the pointer interface where constructor parameter attribute _";
    refused(number, begin + "number has a different value of 13 than the current value of 5 not");
    refused(other, begin + "tree has a different value of 0x");
    refused(null, "null value for mutator parameter of Test::Follower::tree not allowed");
    EXPECT_EQ(take(), Log{});
    for (int i = 0; i < 2; ++i) map.del(1), owned.del();
    EXPECT_EQ(take(), (Log{"cleanup", "cleanup"}));
    EXPECT_THROW(owned.is(number), int);
    EXPECT_THROW(map.is(1, number), int);
    EXPECT_EQ(take(), (Log{"initialized", "cleanup", "initialized", "cleanup"}));
    EXPECT_FALSE(owned || map(1)) << "half initialised";
}

}  // namespace Test

// Reactors of entries under random cascades, reactors with their owner, and inputs that are
// replaced.
#include "tests/vel/VelTest.h"

namespace Test {

using Log = std::vector<std::string>;

// Each step in the life of an entry reactor is checked against the one before, and each may change
// the collection it belongs to.
struct Cascade : testing::Test {
    struct Entry : Object {
        Entry(Cascade& test_, Leaf& leaf_) : test(test_), leaf(leaf_) {
            ++test.alive;
            mode = Subscription::to<&Entry::handleMode>(*test.tree, Tree::modeAttr, this);
            test.step();
        }
        ~Entry() override {
            EXPECT_TRUE(clean);
            --test.alive;
        }
        void handleInitialized() {
            EXPECT_TRUE(!initialized && !clean && test.initialized);
            initialized = true;
            test.step();
        }
        void handleDelete() {
            EXPECT_TRUE(!deleted && !clean && test.following);
            EXPECT_NE(test.tree->leaf(leaf.id()), &leaf);
            deleted = true;
            test.step();
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

    void step() {
        if (depth > 4 || random() % 2) return;
        ++depth;
        const U32 key = random() % 6;
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
        --depth;
    }
    void handleLeaf(const U32&) { step(); }

    Random random;
    Ptr<Tree> tree = make<Tree>("tree");
    U32 depth = 0;
    U32 alive = 0;
    bool initialized = false;
    bool following = true;
};

TEST_F(Cascade, EachElementHasOneReactor) {
    for (U32 seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        random.seed(seed);
        initialized = false;
        auto first = Subscription::to<&Cascade::handleLeaf>(*tree, Tree::leafAttr, this);
        std::optional<Entries> entries(std::in_place, *this, *tree, Tree::leafAttr);
        auto last = Subscription::to<&Cascade::handleLeaf>(*tree, Tree::leafAttr, this);
        for (int i = 0; i < 200 && !HasFailure(); ++i) {
            if (i == 20) {
                initialized = true;
                entries->initialize();
                entries->initialize();
            }
            step();
            ASSERT_EQ(entries->all().size(), tree->leaf().size());
            ASSERT_EQ(alive, tree->leaf().size());
            for (Leaf& leaf : tree->leaf()) {
                const Entry* entry = (*entries)(leaf.id());
                ASSERT_TRUE(entry && &entry->leaf == &leaf && !entry->deleted && !entry->clean);
                ASSERT_EQ(entry->initialized, initialized);
            }
        }
        following = false;  // with its owner: no delete handlers
        entries.reset();
        ASSERT_EQ(alive, 0U);
        following = true;
    }
}

// A reactor with both kinds of watching, and reactors of entries.
struct Follower : Reactor {
    static constexpr std::string_view name = "Test::Follower";
    struct Inputs {
        Input<Tree> tree;
        Input<Leaf> leaf;
        U32 number = 0;
        Log* log = nullptr;
    };
    struct Entry : Object {
        Entry(Follower& owner_, Leaf& leaf) : owner(owner_), id(std::to_string(leaf.id())) {}
        void handleInitialized() { owner.note("entry " + id); }
        void handleDelete() { owner.note("delete " + id); }
        void doCleanup() { owner.note("clean " + id); }
        Follower& owner;
        std::string id;
    };

    explicit Follower(const Inputs& inputs) : in(inputs), entries(*this, in.tree, Tree::leafAttr) {}
    const Inputs& inputs() const { return in; }
    void handleInitialized() override {
        entries.initialize();
        note("initialized");
    }
    void doCleanup() override {
        entries.clear();
        note("cleanup");
    }
    void handleMode() { note(std::string("mode ") + stringValue(in.tree->mode())); }
    void handleLeaf(const U32& key) { note("leaf " + std::to_string(key)); }
    void handleA() {
        note("a");
        if (auto act = std::exchange(onA, nullptr)) act();
    }
    void note(std::string text) { in.log->push_back(std::move(text)); }

    Inputs in;
    std::function<void()> onA;  // once
    Watch mode = Watch::to<&Follower::handleMode, &Tree::modeAttr>(in.tree, this);
    Watch leaf = Watch::to<&Follower::handleLeaf, &Tree::leafAttr>(in.tree, this);
    EntryReactorsOf<Entry, decltype(Tree::leafAttr)> entries;
    Watch a = Watch::to<&Follower::handleA, &Leaf::aAttr>(in.leaf, this);
};
VEL_INPUTS(Follower::Inputs, tree, leaf, number, log)

struct ReactorTest : testing::Test {
    Log take() { return std::exchange(log, {}); }
    Log log;
    Ptr<Tree> one = make<Tree>("one"), two = make<Tree>("two");
    Ptr<Leaf> leaf = make<Leaf>(1U);
    Follower::Inputs inputs{one, leaf, 5, &log};
};

TEST_F(ReactorTest, IsKeptForTheSameInputsAndRefusedForOthers) {
    Owned<Follower> owned;
    ReactorMap<U32, Follower> map;
    EXPECT_EQ(&owned.is(inputs), &owned.is(inputs));
    Follower& first = map.is(1, inputs);
    EXPECT_EQ(&map.is(1, inputs), &first);
    EXPECT_NE(&map.is(2, inputs), &first);
    EXPECT_EQ(take(), (Log{"initialized", "initialized", "initialized"}));
    const std::string begin =
        "Reinstantiating the pointer interface where constructor parameter attribute _";
    auto others = inputs;
    others.number = 6;
    for (auto&& refused : {errorOf([&] { owned.is(others); }), errorOf([&] { map.is(2, others); })})
        EXPECT_EQ(refused, begin +
                               "number has a different value of 6 than the current value of 5 "
                               "not allowed");
    Follower::Inputs other{two, leaf, 6, &log};
    EXPECT_TRUE(errorOf([&] { map.is(1, other); }).starts_with(begin + "tree has a different"));
    const Follower::Inputs null{one, Ptr<Leaf>(), 5, &log};
    for (auto&& refused : {errorOf([&] { owned.is(null); }), errorOf([&] { map.is(3, null); }),
                           errorOf([&] { first.in.leaf.replace({}, Follower::name, "leaf"); })})
        EXPECT_EQ(refused, "null value for mutator parameter of Test::Follower::leaf not allowed");
    EXPECT_EQ(take(), Log{});
    map.del(7);
    map.del(1);
    map.del(1);
    owned.del();
    owned.del();
    EXPECT_EQ(take(), (Log{"cleanup", "cleanup"}));
}

TEST_F(ReactorTest, FollowsAnInputThatIsReplaced) {
    for (U32 key : {1U, 2U}) one->leafIs(key);
    for (U32 key : {3U, 2U}) two->leafIs(key);
    two->modeIs(Mode::active);
    Owned<Follower> owned;
    owned.is(inputs);
    EXPECT_EQ(take(), (Log{"entry 1", "entry 2", "initialized"}));
    owned->in.tree.replace(one, Follower::name, "tree");
    EXPECT_EQ(take(), Log{}) << "the same changes nothing";
    owned->in.tree.replace(two, Follower::name, "tree");
    EXPECT_EQ(take(), (Log{"mode active", "leaf 1", "leaf 3", "leaf 2", "delete 1", "clean 1",
                           "delete 2", "clean 2", "entry 3", "entry 2"}));
    one->modeIs(Mode::standby);
    one->leafDelAll();
    EXPECT_EQ(take(), Log{}) << "the old one is heard no more";
    two->leafDel(3);
    EXPECT_EQ(take(), (Log{"leaf 3", "delete 3", "clean 3"}));
    owned.del();
    EXPECT_EQ(take(), (Log{"clean 2", "cleanup"}));
}

TEST_F(ReactorTest, InputIsReplacedAgainByAWatcherOfTheFirst) {
    Owned<Follower> owned;
    owned.is(inputs);
    auto second = make<Leaf>(2U), third = make<Leaf>(3U);
    Log seen;
    struct Late : Object {
        Late(Input<Leaf>& input, Log& log_)
            : log(log_), a(Watch::to<&Late::handleA, &Leaf::aAttr>(input, this)) {}
        void handleA() { log.push_back("late"); }
        Log& log;
        Watch a;
    };
    auto dropped = make<Late>(owned->in.leaf, seen), kept = make<Late>(owned->in.leaf, seen);
    owned->onA = [&] {
        dropped = nullptr;  // still linked until the stack has unwound
        owned->in.leaf.replace(third, Follower::name, "leaf");
    };
    owned->in.leaf.replace(second, Follower::name, "leaf");
    EXPECT_EQ(seen, Log{"late"}) << "moved once, to the last";
    EXPECT_EQ(take(), (Log{"initialized", "a", "a"}));
    leaf->aIs(1);
    second->aIs(1);
    EXPECT_EQ(take(), Log{});
    third->aIs(1);
    EXPECT_EQ(take(), Log{"a"});
    EXPECT_EQ(seen.size(), 2U);
}

// Deleted in the middle of what it is part of, a reactor hears and makes nothing more, though its
// memory waits for the stack to unwind.
TEST_F(ReactorTest, IsSilentOnceItsOwnerLetGo) {
    Owned<Follower> owned;
    owned.is(inputs).onA = [&] {
        owned.del();
        EXPECT_EQ(take(), (Log{"initialized", "a", "cleanup"}));
        one->leafIs(1);
        one->modeIs(Mode::active);
        leaf->aIs(2);
    };
    leaf->aIs(1);
    EXPECT_EQ(take(), Log{});
    EXPECT_FALSE(owned);
    owned.is(inputs);  // and a new one may come while the old one waits
    EXPECT_EQ(take(), (Log{"entry 1", "initialized"}));
}

}  // namespace Test

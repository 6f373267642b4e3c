// Random operations on each kind of keyed attribute, also from inside walks and notifications, held
// against a plain list of what should be there.
#include <algorithm>

#include "tests/vel/VelTest.h"

namespace Test {

#define ACCESS(Name, Key_, coll, isSorted, toKey, toIs, toValue)                           \
    struct Name {                                                                          \
        using Key = Key_;                                                                  \
        static constexpr bool sorted = isSorted;                                           \
        static constexpr const auto& attr = Tree::coll##Attr;                              \
        static Key key(U32 n) { return toKey; }                                            \
        static const auto& all(const Tree& t) { return t.coll(); }                         \
        static void is(Tree& t, const Key& k, [[maybe_unused]] U32 v) { t.coll##Is toIs; } \
        static void del(Tree& t, const Key& k) { t.coll##Del(k); }                         \
        static void delAll(Tree& t) { t.coll##DelAll(); }                                  \
        static U32 value([[maybe_unused]] const auto& item) { return toValue; }            \
    };
ACCESS(Hashed, U32, leaf, false, n, (k), 0)
ACCESS(Sorted, U32, sorted, true, n * 0x9e3779b9U, (k), 0)
ACCESS(Set, SiteKey, site, false, (SiteKey{std::string(n % 3, 'x'), addr(n)}), (k), 0)
ACCESS(Map, FlowKey, flow, false, (FlowKey{addr(n % 7), addr(n), n % 2}), (k, v), item.second)
ACCESS(Values, U32, rule, false, n, ((Rule{.id = k, .weight = static_cast<U8>(v), .share = NAN})),
       item.weight)

template <class Access>
class Collection : public testing::Test {
  protected:
    using Key = typename Access::Key;
    static constexpr U32 keys = 150;
    static constexpr bool hasValue = std::is_same_v<Access, Map> || std::is_same_v<Access, Values>;

    struct Entry {
        Key key;
        U32 value;
        U32 serial;
    };
    // The notification that is due: of one key, or of any that was there before `limit`.
    struct Due {
        std::optional<Key> key = {};
        bool present = false;
        U32 limit = 0;
        U32 calls = 0;
        U32 error = 0;  // the first
    };

    Entry* find(const Key& key) {
        const auto it = std::ranges::find(model, key, &Entry::key);
        return it == model.end() ? nullptr : &*it;
    }
    bool present(U32 serial) const { return std::ranges::count(model, serial, &Entry::serial); }

    void handle(const Key& key) {
        ASSERT_NE(due, nullptr);
        ++due->calls;
        const auto* item = Access::all(*tree).find(key);
        Entry* entry = find(key);
        ASSERT_EQ(item != nullptr, due->present);
        if (due->key) {
            ASSERT_EQ(key, *due->key);
        } else {
            ASSERT_TRUE(entry && entry->serial < due->limit) << "DelAll took what came meanwhile";
        }
        if (item && entry)
            entry->value = newValue;
        else if (item)
            model.push_back({key, newValue, ++serial});
        else
            model.erase(model.begin() + (entry - model.data()));
        if (depth < 3 && random() % 8 == 0) step();
        if (random() % 16) return;
        if (!due->error) due->error = ++lastError;
        throw lastError;
    }

    void change(Due& now, U32 value, auto&& operation) {
        Due* outer = std::exchange(due, &now);
        newValue = value;
        ++depth;
        U32 caught = 0;
        try {
            operation();
        } catch (U32 error) {
            caught = error;
        }
        ASSERT_EQ(caught, now.error);
        --depth;
        due = outer;
    }
    void step() {
        const U32 what = random() % 100;
        const Key key = Access::key(random() % keys);
        const Entry* entry = find(key);
        if (what == 0) {
            Due all{.limit = serial + 1};
            const auto before = model;
            change(all, 0, [&] { Access::delAll(*tree); });
            for (const Entry& e : before) ASSERT_FALSE(present(e.serial));
        } else if (what < 6) {
            if (depth < 3) walk();
        } else if (what < (growing ? 75 : 25)) {
            const U32 v = hasValue ? random() % 3 : 0;
            const U32 calls = entry && entry->value == v ? 0 : 1;
            Due one{.key = key, .present = true};
            change(one, v, [&] { Access::is(*tree, key, v); });
            ASSERT_EQ(one.calls, calls);
        } else {
            const bool oldest = std::is_same_v<Access, Set> && what < 85 && !model.empty();
            Due one{.key = oldest ? model.front().key : key};
            const U32 calls = find(*one.key) ? 1 : 0;
            change(one, 0, [&] {
                if constexpr (std::is_same_v<Access, Set>) {
                    if (oldest && tree->siteTakeOldest() == *one.key) return;
                }
                Access::del(*tree, *one.key);
            });
            ASSERT_EQ(one.calls, calls);
        }
    }
    // Each that was there at the start and is there when reached, once, in order; no other.
    void walk() {
        auto start = model;
        if (Access::sorted) std::ranges::sort(start, {}, &Entry::key);
        size_t next = 0;
        auto skip = [&] {
            while (next < start.size() && !present(start[next].serial)) ++next;
        };
        ++depth;
        for (const auto& item : Access::all(*tree)) {
            skip();
            ASSERT_LT(next, start.size());
            ASSERT_EQ(Access::all(*tree).keyOf(item), start[next].key);
            ASSERT_EQ(Access::value(item), find(start[next].key)->value);
            ++next;
            while (random() % 4 == 0) step();
            if (HasFatalFailure()) break;
        }
        --depth;
        skip();
        ASSERT_TRUE(next == start.size() || HasFatalFailure());
    }
    void compare() {
        const auto& all = Access::all(*tree);
        ASSERT_EQ(all.size(), model.size());
        for (U32 n = 0; n < keys; ++n)
            ASSERT_EQ(all.has(Access::key(n)), find(Access::key(n)) != nullptr);
        walk();
    }

    Random random{1};  // the seed
    Ptr<Tree> tree = make<Tree>("tree");
    Subscription subscription = Subscription::to<&Collection::handle>(*tree, Access::attr, this);
    std::vector<Entry> model;  // in order of insertion
    U32 serial = 0;
    U32 newValue = 0;
    U32 depth = 0;
    U32 lastError = 0;
    bool growing = true;
    Due* due = nullptr;
};

using Kinds = testing::Types<Hashed, Sorted, Set, Map, Values>;
TYPED_TEST_SUITE(Collection, Kinds);

TYPED_TEST(Collection, FollowsTheModel) {
    for (U32 n = 0; n < 9600 && !this->HasFatalFailure(); ++n) {
        this->growing = n / 200 % 2 == 0;  // past what needs no index, and back to nearly empty
        this->step();
        if (n % 200 == 199) this->compare();
    }
}

TEST(Element, IsWholeBeforeItIsAnnouncedAndAfterItIsRemoved) {
    auto tree = make<Tree>("t");
    struct {
        Tree& tree;
        Ptr<Leaf> kept;
        std::vector<U32> seen;
        void handle(const U32& key) {
            if (Leaf* leaf = tree.leaf(key)) kept = *leaf;
            seen.push_back(kept->a());
        }
        void never() { FAIL() << "what a removed element contains is destroyed silently"; }
    } watcher{*tree, {}, {}};
    auto whole = Subscription::to<&decltype(watcher)::handle>(*tree, Tree::leafAttr, &watcher);
    EXPECT_THROW(tree->leafIs(1, [](Leaf&) { throw 1; }), int);
    EXPECT_TRUE(tree->leaf().empty());
    Leaf& first = tree->leafIs(1, [&](Leaf& leaf) {
        tree->leafIs(1, [](Leaf& inner) { inner.aIs(5); });
        leaf.aIs(6);  // comes too late, and is dropped
    });
    auto silent = Subscription::to<&decltype(watcher)::never>(first, Leaf::aAttr, &watcher);
    EXPECT_EQ(&tree->leafIs(1, [](Leaf& leaf) { leaf.aIs(6); }), &first) << "kept as it is";
    tree->leafDel(1);
    tree->leafDel(1);
    EXPECT_EQ(watcher.seen, (std::vector<U32>{5, 5}));
    EXPECT_EQ(watcher.kept->a(), 5U);
}

}  // namespace Test

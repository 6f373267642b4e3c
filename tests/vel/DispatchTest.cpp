// Who is called when, held against a model, while handlers subscribe, leave, set, move handles,
// throw, and destroy entities, other subscribers and themselves.
#include "platform/netz/Assert.h"
#include "tests/vel/VelTest.h"

namespace Test {

class Dispatch : public testing::Test {
  protected:
    struct Subscriber : Object {
        explicit Subscriber(Dispatch& test_) : test(test_) {}
        void handle() { test.called(*this); }
        static void handleAll(void* self, const void*, Ordinal) {
            auto& subscriber = *static_cast<Subscriber*>(self);
            if (!subscriber.gone()) subscriber.handle();  // a bare function has to ask itself
        }
        Dispatch& test;
        U32 id = 0;
        std::unique_ptr<Subscription> handle_ = std::make_unique<Subscription>();
    };
    struct Watching {
        const Entity* entity;
        Ordinal attribute;
    };
    // A round under way, and who is still to be called in it, the next one last.
    struct Round {
        Leaf& leaf;
        bool isA;
        U32 value;
        bool fresh = true;
        std::vector<U32> due = {};
    };

    auto& any(auto& list) { return list[random() % list.size()]; }

    void subscribe(Subscriber& who) {
        Leaf& leaf = *any(leaves);
        const auto attr = random() % 2 ? Leaf::aAttr : Leaf::bAttr;
        const bool all = random() % 3 == 0;
        model.erase(who.id);
        who.id = ++lastId;
        model[who.id] = {&leaf, all ? anyAttribute : attr.ordinal};
        *who.handle_ = all ? leaf.subscribeAll(&who, &Subscriber::handleAll)
                           : Subscription::to<&Subscriber::handle>(leaf, attr, &who);
    }
    void set() {
        Round round{*any(leaves), random() % 2 == 0, random() % 3};
        Leaf& leaf = round.leaf;
        const Ordinal attribute = (round.isA ? Leaf::aAttr : Leaf::bAttr).ordinal;
        if ((round.isA ? leaf.a() : leaf.b()) != round.value)
            for (const auto& [id, w] : model)  // ids ascend in the order of subscription
                if (w.entity == &leaf && (w.attribute == attribute || w.attribute == anyAttribute))
                    round.due.insert(round.due.begin(), id);
        rounds.push_back(&round);
        try {
            round.isA ? leaf.aIs(round.value) : leaf.bIs(round.value);
            skipThoseWhoLeft(round);
            EXPECT_TRUE(round.due.empty()) << "subscribers were left out";
        } catch (int) {
        }
        rounds.pop_back();
    }
    void skipThoseWhoLeft(Round& round) {
        while (!round.due.empty() && !model.contains(round.due.back())) round.due.pop_back();
    }
    void called(Subscriber& who) {
        ASSERT_FALSE(rounds.empty());
        Round& round = *rounds.back();
        skipThoseWhoLeft(round);
        ASSERT_TRUE(!round.due.empty() && round.due.back() == who.id) << "called out of turn";
        round.due.pop_back();
        const U32 stored = round.isA ? round.leaf.a() : round.leaf.b();
        EXPECT_TRUE(!round.fresh || stored == round.value);
        round.fresh = false;  // later ones may see what this one makes of it
        if (rounds.size() > 4) return;
        for (U32 n = random() % 3; n; --n) step();
        if (random() % 20 == 0) throw 1;
    }
    void step() {
        Ptr<Subscriber>& who = any(subscribers);
        Ptr<Leaf>& leaf = any(leaves);
        switch (random() % 10) {
            case 0:
            case 1:
                subscribe(*who);
                break;
            case 2:
                model.erase(who->id);
                who->handle_->reset();
                break;
            case 3:
                model.erase(who->id);
                who = make<Subscriber>(*this);
                break;
            case 4:
                who->handle_ = std::make_unique<Subscription>(std::move(*who->handle_));
                break;
            case 5:
                tree->leafDel(leaf->id());
                dead.push_back(leaf.get());
                leaf = Ptr<Leaf>(tree->leafIs(++lastId));
                break;
            default:
                set();
        }
        if (!rounds.empty()) return;
        for (const Entity* entity : std::exchange(dead, {}))
            std::erase_if(model, [&](const auto& m) { return m.second.entity == entity; });
        for (const auto& s : subscribers)
            EXPECT_EQ(static_cast<bool>(*s->handle_), model.contains(s->id));
    }

    Random random;
    Ptr<Tree> tree = make<Tree>("tree");
    std::vector<Ptr<Leaf>> leaves;
    std::vector<Ptr<Subscriber>> subscribers;
    std::map<U32, Watching> model;
    std::vector<Round*> rounds;
    std::vector<const Entity*> dead;  // since the stack was last unwound
    U32 lastId = 0;
};

TEST_F(Dispatch, FollowsTheModel) {
    for (U32 seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        random.seed(seed);
        leaves.clear();
        subscribers.clear();
        tree->leafDelAll();
        model.clear();
        for (int i = 0; i < 3; ++i) leaves.emplace_back(tree->leafIs(++lastId));
        for (int i = 0; i < 9; ++i) subscribers.push_back(make<Subscriber>(*this));
        for (int i = 0; i < 1000 && !HasFailure(); ++i) step();
    }
}

TEST(HoldTest, DestroysOnceWhatNobodyTookUp) {
    struct Node : Object {
        explicit Node(U32& count) : destroyed(count) {}
        ~Node() override { ++destroyed; }
        U32& destroyed;
        Ptr<Node> next;
    };
    U32 destroyed = 0;
    auto first = make<Node>(destroyed), second = make<Node>(destroyed),
         third = make<Node>(destroyed);
    {
        Hold hold;
        Node &a = *first, &b = *second, &c = *third;
        first = second = third = nullptr;
        a.next = b;  // lets go of it when it is destroyed itself
        third = c;   // for good
        EXPECT_TRUE(a.gone() && !b.gone() && !c.gone());
        EXPECT_EQ(destroyed, 0U);
    }
    EXPECT_EQ(destroyed, 2U);
    third = nullptr;
    EXPECT_EQ(destroyed, 3U);
}

TEST(DispatchLimit, SixtyFourRoundsThenTheChainOfAttributes) {
    auto leaf = make<Leaf>(1U);
    struct PingPong {
        Leaf& leaf;
        U32 calls = 0;
        void handleA() { ++calls, leaf.bIs(leaf.a() + 1); }
        void handleB() { ++calls, leaf.aIs(leaf.b() + 1); }
    } loop{*leaf};
    auto a = Subscription::to<&PingPong::handleA>(*leaf, Leaf::aAttr, &loop);
    auto b = Subscription::to<&PingPong::handleB>(*leaf, Leaf::bAttr, &loop);
    const auto before =
        assertHandlerIs([](const char* text, const char*, int) { throw std::logic_error(text); });
    std::string chain;
    try {
        leaf->aIs(1);
    } catch (const std::logic_error& e) {
        chain = e.what();
    }
    assertHandlerIs(before);
    EXPECT_EQ(loop.calls, 64U);
    EXPECT_TRUE(
        chain.starts_with("notifications nest deeper than 64 rounds: Test::Leaf.a "
                          "Test::Leaf.b Test::Leaf.a "))
        << chain;
    a.reset();
    leaf->bIs(0);  // the stack of rounds is empty again
    EXPECT_EQ(leaf->a(), 1U);
}

}  // namespace Test

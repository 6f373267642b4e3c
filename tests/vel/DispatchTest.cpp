// Who is called when, held against a model, while handlers subscribe, leave, set, move handles,
// throw, and destroy entities, other subscribers and themselves.
#include <thread>

#include "platform/trace/Ringlog.h"
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
        int error = 0;  // the first
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
        int caught = 0;
        try {
            round.isA ? leaf.aIs(round.value) : leaf.bIs(round.value);
        } catch (int error) {
            caught = error;
        }
        rounds.pop_back();
        skipThoseWhoLeft(round);
        EXPECT_TRUE(round.due.empty()) << "subscribers were left out";
        EXPECT_EQ(caught, round.error);
        if (caught && !rounds.empty()) throw caught;
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
        try {
            for (U32 n = random() % 3; n; --n) step();
            if (random() % 8 == 0) throw ++lastError;
        } catch (int error) {
            if (!round.error) round.error = error;
            throw;
        }
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
    int lastError = 0;
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

// Records of one notification have one time, of the next another; outside each has its own.
TEST(Event, HasOneTime) {
    struct Tracer {
        std::vector<int64_t> times;
        void handle() {
            Ringlog::prepare();
            times.push_back(Ringlog::state.time);
        }
    } tracer;
    auto leaf = make<Leaf>(1U);
    auto first = Subscription::to<&Tracer::handle>(*leaf, Leaf::aAttr, &tracer);
    auto second = Subscription::to<&Tracer::handle>(*leaf, Leaf::aAttr, &tracer);
    {
        Hold hold;
        for (U32 i = 1; i < 3; ++i) leaf->aIs(i);
    }
    for (int i = 0; i < 2; ++i) tracer.handle();
    const auto& t = tracer.times;
    EXPECT_TRUE(t[0] == t[1] && t[1] < t[2] && t[2] == t[3] && t[3] < t[4] && t[4] < t[5]);
}

// What cannot be, or cannot be told to a caller, stops the process and says where.
TEST(Stop, NamesWhatIsWrong) {
    struct Handlers {
        Leaf& leaf;
        U32 rounds = 0;
        void refuse() { throw Error("no"); }
        void nest() {
            if (leaf.b() < rounds) leaf.bIs(leaf.b() + 1);
        }
    };
    struct Setter : Reactor {
        explicit Setter(Leaf& leaf_) : leaf(leaf_) {}
        ~Setter() override { leaf.aIs(leaf.a() + 1); }
        Leaf& leaf;
    };
    auto leaf = make<Leaf>(1U);
    Handlers handlers{*leaf};
    auto a = Subscription::to<&Handlers::refuse>(*leaf, Leaf::aAttr, &handlers);
    auto b = Subscription::to<&Handlers::nest>(*leaf, Leaf::bAttr, &handlers);
    EXPECT_DEATH(make<Setter>(*leaf),
                 "Setter's destructor, through a subscriber of Test::Leaf.a, threw: no");
    handlers.rounds = 64;
    leaf->bIs(1);
    EXPECT_EQ(leaf->b(), 64U);
    handlers.rounds = 65;
    EXPECT_DEATH(leaf->bIs(1), "nest deeper than 64 rounds: Test::Leaf.b Test::Leaf.b ");
#ifndef NDEBUG
    EXPECT_DEATH(std::thread([&] { leaf->bIs(0); }).join(), "another thread");
#endif
}

}  // namespace Test

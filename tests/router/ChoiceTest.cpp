// The choice of member paths, against its definition.
#include <random>

#include "agent/router/MemberChoice.h"
#include "tests/nav/NavFixture.h"

namespace Agent::Test {
namespace {

using namespace std::chrono_literals;
using Vel::U32;

class ChoiceTest : public Nav::Test::NavFixture {
  protected:
    static constexpr U32 paths = 6;

    ChoiceTest() { in.navStatusDir->navLbProfileStatusIs("lb"); }
    Nav::LbProfileStatusEntry& entry(U32 appId) {
        return in.navStatusDir->navLbProfileStatus()->lbProfileStatusEntryIs(
            {Nav::Test::ip("10.255.0.2"), appId, 0});
    }
    void wait(Loom::Duration time) {
        clock.advance(time);
        in.scheduler->runDue();
    }

    Vel::Ptr<QualityStatus> quality = Vel::make<QualityStatus>("pathQuality");
    MemberChoice::Delays delays;
    std::set<U32> unusable;
    std::set<U32> moved;  // applications told to choose again
    std::optional<MemberChoice> choice{
        std::in_place, in, *quality,
        MemberChoice::User{[this](const Vel::String&) { return delays; },
                           [this](U32 index) { return !unusable.contains(index); },
                           [this](const Nav::LbProfileKey& key) { moved.insert(key.appId); }}};
};

TEST_F(ChoiceTest, SuitableMembersComeFirstThenPriority) {
    const auto seed = 20261122u;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto upTo = [&](U32 most) { return std::uniform_int_distribution<U32>(0, most)(random); };
    const auto figure = [&] { return upTo(4) == 0 ? PathQuality::unknown : upTo(8) / 2.0; };
    const auto within = [](double figure, U32 limit) { return !(figure > limit); };
    choice->start();
    std::map<U32, Chosen> known;
    for (int step = 0; step < 20000; ++step) {
        const U32 app = upTo(3), path = upTo(paths - 1);
        switch (upTo(5)) {
            case 0:
                entry(app).latencyIs(upTo(1) ? ~U32{} : upTo(4));
                entry(app).jitterIs(upTo(1) ? ~U32{} : upTo(4));
                entry(app).lossRateIs(upTo(4));
                break;
            case 1:
                entry(app).pathEntryIs({path, upTo(2), "group"});
                break;
            case 2:
                entry(app).pathEntryDel(path);
                break;
            case 3:
                quality->pathQualityDel(path);
                break;
            default:
                quality->pathQualityIs(path, {.rttMean = figure(),
                                              .lossForward = figure(),
                                              .lossBackward = figure(),
                                              .jitter = figure()});
        }
        entry(app).genIdIs(entry(app).genId() + 1);
        const bool silent = upTo(9) == 0;
        if (silent) unusable = {upTo(paths)};
        for (const auto& each : in.navStatusDir->navLbProfileStatus()->lbProfileStatusEntry()) {
            const auto rank = [&](const Nav::PathWithPriority& member) {
                const PathQuality* q = quality->pathQuality(member.pathIndex);
                const bool suits =
                    !q || (within(q->rttMean, each.latency()) && within(q->jitter, each.jitter()) &&
                           (each.lossRate() == 0 || (within(q->lossForward, each.lossRate()) &&
                                                     within(q->lossBackward, each.lossRate()))));
                return std::pair(!suits, member.priority);
            };
            std::map<std::pair<bool, U32>, std::vector<Nav::PathWithPriority>> ranked;
            for (const Nav::PathWithPriority& member : each.pathEntry())
                if (!unusable.contains(member.pathIndex)) ranked[rank(member)].push_back(member);
            Chosen wanted;
            if (!ranked.empty()) wanted = {ranked.begin()->second, !ranked.begin()->first.first};
            std::ranges::sort(wanted.members);
            const U32 appId = each.key().appId;
            ASSERT_EQ(choice->choose(each), wanted) << "step " << step << ", application " << appId;
            ASSERT_TRUE(known[appId] == wanted || moved.contains(appId) || silent)
                << "step " << step << ": nobody was told about application " << appId;
            known[appId] = wanted;
        }
        moved.clear();
    }
}

// Path 1 is preferred to path 2. Each line: the loss of path 1, for how long, and who carries then.
TEST_F(ChoiceTest, MovesAreDamped) {
    delays = {100ms, 20ms};
    auto& voice = entry(1);
    voice.lossRateIs(1);
    voice.latencyIs(~U32{});
    voice.jitterIs(~U32{});
    voice.pathEntryIs({1, 1, "internet"});
    voice.pathEntryIs({2, 2, "mpls"});
    voice.genIdIs(1);
    choice->start();
    const struct {
        double loss;
        Loom::Duration time;
        U32 carrier;
        const char* why;
    } steps[] = {{5, 0ms, 2, "the first figures count at once"},
                 {0, 99ms, 2, "not good for long enough"},
                 {5, 1ms, 2, "bad again"},
                 {0, 99ms, 2, "good for 99 ms without interruption"},
                 {0, 1ms, 1, "for 100 ms"},
                 {5, 19ms, 1, "not bad for long enough"},
                 {0, 1ms, 1, "good again"},
                 {5, 20ms, 2, "bad for 20 ms without interruption"},
                 {0, 199ms, 2, "it has left soon after its return: twice the delay"},
                 {0, 1ms, 1, "which is over"},
                 {5, 20ms, 2, "again"},
                 {0, 399ms, 2, "twice that delay"},
                 {0, 1ms, 1, "over"},
                 {0, 30s, 1, "and calm"},
                 {5, 20ms, 2, "a single failure"},
                 {0, 100ms, 1, "is not damped"},
                 {PathQuality::unknown, 1s, 1, "what is not known violates nothing"}};
    for (const auto& step : steps) {
        quality->pathQualityIs(1, {.lossForward = 0, .lossBackward = step.loss});
        wait(step.time);
        EXPECT_EQ(choice->choose(voice).members.front().pathIndex, step.carrier) << step.why;
    }
    unusable = {2};
    quality->pathQualityIs(1, {.lossForward = 5});
    moved.clear();
    wait(20ms);
    EXPECT_TRUE(choice->choose(voice).has(1)) << "it is the only one";
    EXPECT_FALSE(choice->choose(voice).suitable);
    EXPECT_EQ(moved, std::set<U32>{1});
    quality->pathQualityDel(1);
    EXPECT_TRUE(choice->choose(voice).suitable);
}

}  // namespace
}  // namespace Agent::Test

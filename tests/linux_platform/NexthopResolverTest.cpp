// The resolver against random answers of a lookup, looked at from every change of a FEC.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <set>

#include "agent/host/Host.h"
#include "agent/router/NexthopResolver.h"

namespace Agent {
namespace {

struct Resolution : testing::Test {
    using Answer = NexthopResolver::Answer;

    void handleFec() {
        ++fecChanges;
        check(true);
    }
    // Meanwhile an address may go by its vias of before or by those of now, never by others.
    void check(bool meanwhile) {
        std::set<std::pair<bool, Netz::IpGenAddr>> lists;
        for (const auto& vrf : inputs.nexthopStatus->vrf())
            for (const auto& [addr, fecId] : vrf.nexthop()) {
                const auto* fec = addr.isV6() ? inputs.forwarding6Status->fec(fecId)
                                              : inputs.forwardingStatus->fec(fecId);
                ASSERT_NE(fec, nullptr) << addr << " names no FEC";
                if (meanwhile && fec->vias() == before[vrf.vrfName()][addr]) continue;
                ASSERT_EQ(fec->vias(), now[vrf.vrfName()][addr]) << addr << " is misled";
                lists.insert({addr.isV6(), fec->vias()[0].hop});
            }
        if (meanwhile) return;
        ASSERT_EQ(inputs.forwardingStatus->fec().size() + inputs.forwarding6Status->fec().size(),
                  lists.size());
    }
    void resolve(const Answer& answer) {
        before = std::exchange(now, answer);
        fecChanges = 0;
        resolver.resolve();
        EXPECT_EQ(inputs.nexthopStatus->vrf().size(), answer.size());
        for (const auto& [vrf, resolved] : answer)
            ASSERT_EQ(inputs.nexthopStatus->vrf(vrf)->nexthop().size(), resolved.size());
        check(false);
    }
    static Netz::IpGenAddr addr(unsigned i) {
        const std::string n = std::to_string(i);
        return *Netz::IpGenAddr::parse(i % 4 == 3 ? "2001:db8::" + n : "198.51.100." + n);
    }
    static NexthopResolver::Vias by(unsigned gateway) {
        return {{.hop = addr(100 + gateway), .intfId = Netz::IntfId("wan1")}};
    }

    Loom::ManualClock clock;
    const Vel::Ptr<Vel::Scheduler> scheduler = Vel::make<Vel::Scheduler>(clock);
    Host host{*scheduler, std::make_unique<Platform>("manual")};
    Nav::NavInputs& inputs = host.inputs();
    int fecChanges = 0;
    Answer before, now;
    NexthopResolver resolver{inputs, [this](const auto&) { return now; }};
    Vel::Subscription fec = Vel::Subscription::to<&Resolution::handleFec>(
        *inputs.forwardingStatus, Shard::Fib::ForwardingStatus::fecAttr, this);
    Vel::Subscription fec6 = Vel::Subscription::to<&Resolution::handleFec>(
        *inputs.forwarding6Status, Shard::Fib6::ForwardingStatus::fecAttr, this);
};

TEST_F(Resolution, RandomAnswersAreWrittenDownAndNeverMislead) {
    const unsigned seed = 11;
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 500 && !HasFailure(); ++round) {
        Answer answer;
        for (const char* vrf : {"default", "blue"})
            for (unsigned i = 0; i < 8; ++i)
                if (random() % 5 != 0) answer[vrf][addr(i)] = by(random() % 4);
        if (random() % 8 == 0) answer.erase("blue");
        SCOPED_TRACE(round);
        resolve(answer);
        resolve(answer);
        EXPECT_EQ(fecChanges, 0) << "told although nothing changed";
    }
}

TEST_F(Resolution, TheGatewayBeforeManyChangesInOneNotification) {
    Answer answer;
    for (unsigned i : {0U, 1U, 2U}) answer["default"][addr(i)] = answer["blue"][addr(i)] = by(1);
    resolve(answer);
    for (auto& [vrf, resolved] : answer)
        for (auto& [addr, vias] : resolved) vias = by(2);
    resolve(answer);
    EXPECT_EQ(fecChanges, 1);
    answer["blue"][addr(0)] = by(1);  // leaves the others, who must not be told
    resolve(answer);
    EXPECT_EQ(fecChanges, 1);
    EXPECT_EQ(inputs.nexthopStatus->vrf("blue")->nexthop(addr(1))->fecId, 1U);
}

}  // namespace
}  // namespace Agent

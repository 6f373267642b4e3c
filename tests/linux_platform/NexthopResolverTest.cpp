// The resolver against a lookup with random results, checked at every change of a FEC.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <set>

#include "agent/host/Host.h"
#include "agent/router/NexthopResolver.h"

namespace Agent {
namespace {

struct Resolution : testing::Test {
    using Routes = std::map<L3::VrfName, std::map<Netz::IpGenAddr, NexthopResolver::Vias>>;

    // Some of the equal lists are one, others are not.
    NexthopResolver::Routes lookup() const {
        NexthopResolver::Routes routes;
        for (const auto& [vrf, resolved] : now) {
            auto& found = routes.vrfs[vrf];
            for (const auto& [addr, vias] : resolved) {
                if (routes.lists.empty() || routes.lists.back() != vias) routes.add(vias);
                found.push_back({addr, routes.lists.size() - 1});
            }
        }
        return routes;
    }
    void handleFec() {
        ++fecChanges;
        check(true);
    }
    // During a resolution an address may have its old vias or its new ones, never others.
    void check(bool meanwhile) {
        std::set<std::pair<bool, Netz::IpGenAddr>> lists;
        for (const auto& vrf : inputs.nexthopStatus->vrf())
            for (const auto& [addr, fecId] : vrf.nexthop()) {
                const auto* fec = addr.isV6() ? inputs.forwarding6Status->fec(fecId)
                                              : inputs.forwardingStatus->fec(fecId);
                ASSERT_NE(fec, nullptr) << addr << " names no FEC";
                if (meanwhile && fec->vias() == before[vrf.vrfName()][addr]) continue;
                ASSERT_EQ(fec->vias(), now[vrf.vrfName()][addr]) << addr;
                lists.insert({addr.isV6(), fec->vias()[0].hop});
            }
        if (meanwhile) return;
        ASSERT_EQ(inputs.forwardingStatus->fec().size() + inputs.forwarding6Status->fec().size(),
                  lists.size());
    }
    void resolve(const Routes& routes) {
        before = std::exchange(now, routes);
        fecChanges = 0;
        resolver.resolve();
        EXPECT_EQ(inputs.nexthopStatus->vrf().size(), routes.size());
        for (const auto& [vrf, resolved] : routes)
            ASSERT_EQ(inputs.nexthopStatus->vrf(vrf)->nexthop().size(), resolved.size());
        check(false);
    }
    static Netz::IpGenAddr addr(unsigned i) {
        const std::string n = std::to_string(i);
        return *Netz::IpGenAddr::parse(i % 4 == 3 ? "2001:db8::" + n : "198.51.100." + n);
    }
    static NexthopResolver::Vias by(unsigned gateway, size_t count = 1) {
        return {count, {.hop = addr(100 + gateway), .intfId = Netz::IntfId("wan1")}};
    }
    const auto& resolved() { return inputs.nexthopStatus->vrf("default")->nexthop(); }

    Loom::ManualClock clock;
    const Vel::Ptr<Vel::Scheduler> scheduler = Vel::make<Vel::Scheduler>(clock);
    Host host{*scheduler, std::make_unique<Platform>("manual")};
    Nav::NavInputs& inputs = host.inputs();
    int fecChanges = 0;
    Routes before, now;
    NexthopResolver resolver{inputs, [this](const auto&, bool) { return lookup(); }};
    Vel::Subscription fec = Vel::Subscription::to<&Resolution::handleFec>(
        *inputs.forwardingStatus, Shard::Fib::ForwardingStatus::fecAttr, this);
    Vel::Subscription fec6 = Vel::Subscription::to<&Resolution::handleFec>(
        *inputs.forwarding6Status, Shard::Fib6::ForwardingStatus::fecAttr, this);
};

TEST_F(Resolution, RandomRoutesArePublishedWithoutWrongVias) {
    const unsigned seed = 11;
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 500 && !HasFailure(); ++round) {
        Routes routes;
        for (const char* vrf : {"default", "blue"})
            for (unsigned i = 0; i < 8; ++i)
                if (random() % 5 != 0) routes[vrf][addr(i)] = by(random() % 4);
        if (random() % 8 == 0) routes.erase("blue");
        SCOPED_TRACE(round);
        resolve(routes);
        resolve(routes);
        EXPECT_EQ(fecChanges, 0) << "notified although nothing changed";
    }
}

TEST_F(Resolution, TheGatewayBeforeManyChangesInOneNotification) {
    Routes routes;
    for (unsigned i : {0U, 1U, 2U}) routes["default"][addr(i)] = routes["blue"][addr(i)] = by(1);
    resolve(routes);
    for (auto& [vrf, resolved] : routes)
        for (auto& [addr, vias] : resolved) vias = by(2);
    resolve(routes);
    EXPECT_EQ(fecChanges, 1);
    routes["blue"][addr(0)] = by(1);  // leaves the others, whose FEC stays
    resolve(routes);
    EXPECT_EQ(fecChanges, 1);
    EXPECT_EQ(inputs.nexthopStatus->vrf("blue")->nexthop(addr(1))->fecId, 1U);
}

}  // namespace
}  // namespace Agent

// The resolver against random answers of a lookup, looked at from every notification.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <set>

#include "agent/Host.h"
#include "agent/NexthopResolver.h"

namespace Agent {
namespace {

using Vias = NexthopResolver::Vias;
using Where = std::pair<L3::VrfName, Netz::IpGenAddr>;

struct Resolution : testing::Test {
    Resolution() {
        for (Vel::Entity* entity :
             {static_cast<Vel::Entity*>(inputs.forwardingStatus.ptr().get()),
              static_cast<Vel::Entity*>(inputs.forwarding6Status.ptr().get())})
            tables.push_back(entity->subscribeAll(this, &told));
    }
    static void told(void* self, const void*, Vel::Ordinal) {
        ++static_cast<Resolution*>(self)->tableChanges;
        static_cast<Resolution*>(self)->check(true);
    }
    void handleResult() {
        ++resultChanges;
        check(true);
    }

    const Shard::Fib::Fec* fecOf(const Routing::NexthopResult& result) const {
        return result.addr.isV6() ? inputs.forwarding6Status->fec(result.fecId)
                                  : inputs.forwardingStatus->fec(result.fecId);
    }
    // Meanwhile an address may go by its vias of before or by those of now, never by others.
    void check(bool meanwhile) {
        for (const auto& vrf : inputs.nexthopStatus->vrf())
            for (const Routing::NexthopResult& result : vrf.nexthop()) {
                const Where where(vrf.vrfName(), result.addr);
                const Shard::Fib::Fec* fec = fecOf(result);
                ASSERT_NE(fec, nullptr) << "no FEC of " << result.addr;
                if (meanwhile && fec->vias() == viasOf(before_, where)) continue;
                ASSERT_EQ(fec->vias(), viasOf(now_, where)) << result.addr << " is misled";
            }
    }
    void resolve(NexthopResolver::Answer answer) {
        before_ = std::exchange(now_, std::move(answer));
        tableChanges = resultChanges = 0;
        resolver.resolve();
        check(false);
        size_t results = 0;
        std::set<std::string> lists, lists6;
        for (const auto& [vrf, resolved] : now_)
            for (const auto& [addr, vias] : resolved) {
                std::string text;
                for (const auto& via : vias) text += Vel::Codec<Shard::Fib::Via>::key(via) + ";";
                (addr.isV6() ? lists6 : lists).insert(text);
                ASSERT_NE(inputs.nexthopStatus->vrf(vrf)->nexthop(addr), nullptr);
                ++results;
            }
        for (const auto& vrf : inputs.nexthopStatus->vrf()) results -= vrf.nexthop().size();
        EXPECT_EQ(results, 0U) << "results of what is not resolved";
        EXPECT_EQ(inputs.nexthopStatus->vrf().size(), now_.size());
        EXPECT_EQ(inputs.forwardingStatus->fec().size(), lists.size());
        EXPECT_EQ(inputs.forwarding6Status->fec().size(), lists6.size());
        results_.clear();
        for (auto& vrf : inputs.nexthopStatus->vrf())
            results_.push_back(Vel::Subscription::to<&Resolution::handleResult>(
                vrf, Routing::NexthopVrfStatus::nexthopAttr, this));
    }
    static Vias viasOf(const NexthopResolver::Answer& answer, const Where& where) {
        const auto vrf = answer.find(where.first);
        if (vrf == answer.end()) return {};
        const auto addr = vrf->second.find(where.second);
        return addr == vrf->second.end() ? Vias() : addr->second;
    }
    static Netz::IpGenAddr addr(unsigned i) {
        const std::string n = std::to_string(i + 1);
        return *Netz::IpGenAddr::parse(i % 4 == 3 ? "2001:db8::" + n : "198.51.100." + n);
    }
    static Vias vias(unsigned choice) {
        Vias list;
        for (unsigned bit = 0; bit < 3; ++bit)
            if (choice & 1U << bit)
                list.push_back({.hop = addr(100 + bit), .intfId = Netz::IntfId("wan1")});
        return list;
    }

    Loom::ManualClock clock;
    const Vel::Ptr<Vel::Scheduler> scheduler = Vel::make<Vel::Scheduler>(clock);
    Host host{*scheduler, std::make_unique<Platform>("manual")};
    Nav::NavInputs& inputs = host.inputs();
    int tableChanges = 0, resultChanges = 0;
    NexthopResolver::Answer before_, now_;
    NexthopResolver resolver{inputs, [this](const auto&) { return now_; }};
    std::vector<Vel::Subscription> tables, results_;
};

TEST_F(Resolution, RandomAnswersAreWrittenDownAndNeverMislead) {
    const unsigned seed = 11;
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 500 && !HasFailure(); ++round) {
        NexthopResolver::Answer answer;
        for (const char* vrf : {"default", "blue"})
            if (random() % 8 != 0)
                for (unsigned i = 0; i < 8; ++i)
                    if (Vias list = vias(random() % 5); !list.empty()) answer[vrf][addr(i)] = list;
        SCOPED_TRACE(round);
        resolve(answer);
        resolve(answer);
        EXPECT_EQ(tableChanges + resultChanges, 0) << "told although nothing changed";
    }
}

TEST_F(Resolution, TheGatewayBeforeManyChangesInOneNotification) {
    NexthopResolver::Answer answer;
    for (unsigned i : {0U, 1U, 2U}) answer["default"][addr(i)] = answer["blue"][addr(i)] = vias(1);
    resolve(answer);
    for (auto& [vrf, resolved] : answer)
        for (auto& [addr, list] : resolved) list = vias(2);
    resolve(answer);
    EXPECT_EQ(std::pair(tableChanges, resultChanges), std::pair(1, 0));
    answer["blue"][addr(0)] = vias(1);  // leaves the others: its result, a FEC more
    resolve(answer);
    EXPECT_EQ(std::pair(tableChanges, resultChanges), std::pair(1, 1));
    answer["blue"][addr(0)] = vias(2);  // and joins them again
    resolve(answer);
    EXPECT_EQ(std::pair(tableChanges, resultChanges), std::pair(1, 1));
}

}  // namespace
}  // namespace Agent

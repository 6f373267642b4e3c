// A root on the embedded router, with a clock that the test turns.
//
// Two VRFs use the same remote addresses: wan1 is in "default", wan2 in "blue". The paths of group
// "internet" over wan1 are secured and preferred, those of "mpls" over wan2 are not.
#pragma once

#include "agent/sim/SimRouter.h"
#include "tests/nav/NavFixture.h"

namespace Agent::Sim::Test {

using namespace std::chrono_literals;
using Nav::Test::ip;

class SimFixture : public Nav::Test::NavFixture {
  protected:
    static constexpr const char* worldText = R"({
        "programmingDelay": 10,
        "interfaces": {
            "wan1": {"v4": "203.0.113.1/24", "neighbours": {"203.0.113.254": 20}},
            "wan2": {"vrf": "blue", "v4": "192.0.2.1/24", "v6": "2001:db8::1/64",
                     "neighbours": {"192.0.2.254": 40}}},
        "vrfs": {
            "default": {
                "routes": {"198.51.100.0/24": [{"gateway": "203.0.113.254", "interface": "wan1"}]},
                "peers": {"198.51.100.2": {"handshake": 100, "retry": 500}}},
            "blue": {"id": 7,
                "routes": {"0.0.0.0/0": [{"gateway": "192.0.2.254", "interface": "wan2"}]}}}})";

    ~SimFixture() override { router.reset(); }

    // The world above, changed by a merge patch.
    static World world(const char* change = "{}") {
        Json json = Json::parse(worldText);
        json.merge_patch(Json::parse(change));
        return readHistory(json).first;
    }
    void startRouter(History history = {world(), {}}) {
        router.emplace(in, std::move(history));
        run(0ms);
    }
    // Lets time pass, stopping wherever something is due.
    void run(Duration time) {
        const Loom::Instant end = clock.now() + time;
        in.scheduler->runDue();
        while (const auto next = in.scheduler->nextDeadline()) {
            if (*next > end) break;
            clock.advance(*next - clock.now());
            in.scheduler->runDue();
        }
        clock.advance(end - clock.now());
    }
    void change(const char* patch) {
        router->worldIs(world(patch));
        run(0ms);
    }

    void configure() {
        listIntf("internet", "wan1");
        listIntf("mpls", "wan2");
        group("internet").ipsecProfileIs("strong");
        via("internet", "10.255.0.2", "198.51.100.2");
        via("mpls", "10.255.0.2", "198.51.100.2");
        auto& profile = cli.loadBalanceProfileIs("quick");
        profile.pathGroupPriorityIs("internet", 1);
        profile.pathGroupPriorityIs("mpls", 2);
        auto& policy = cli.policyConfigIs("branch");
        auto& rule = policy.appProfilePolicyRuleListIs(10);
        rule.appProfileIdIs(4);
        rule.appProfileNameIs("voice");
        rule.lbGrpNameIs("quick");
        policy.configVersionInc(1);
        cli.vrfConfigIs("blue").policyNameIs("branch");
    }

    // A path in the words of an operator; "" where there is no status.
    std::string state(const Nav::PathKey& path) {
        const auto* vrf = pathStatusDir().pathStatus(path.vrfId == 0 ? "default" : "blue");
        const auto* entry = vrf ? vrf->pathStatusEntry(path) : nullptr;
        if (!entry) return "";
        const Nav::HwPathInfo& info = entry->pathInfo();
        const bool secured = info.pathType == Nav::PathType::securedPath;
        if (entry->programmed()) return secured ? "Ipsec Estab" : "Estab";
        if (info.pathState == Nav::PathState::resolved) return "Arp Pending";
        if (info.via == Shard::Fib::Via{}) return "Route Pending";
        return secured ? "Ipsec Pending" : "Unknown";
    }
    std::string internet() { return state(internetKey); }
    std::string mpls() { return state(mplsKey); }
    U32 encapId() {
        const auto* status = in.ipsecPathStatusDir->ipsecPathStatus(connection);
        return status ? status->encapId() : 0;
    }
    // The site's usable paths in both groups, and what is in hardware.
    std::set<U32> usable() {
        std::set<U32> indices;
        for (const auto& site : in.siteGroupStatus->siteGroupStatusEntry())
            for (const U32 index : site.pathIndexEntry()) indices.insert(index);
        return indices;
    }
    std::set<Nav::HwPathKey> inHardware() {
        std::set<Nav::HwPathKey> keys;
        for (const auto& entry : in.hwPathStatus->hwPathStatusList()) {
            EXPECT_TRUE(entry.hwPathIndex() != 0 && entry.hwArpIndex() != 0) << entry.key();
            keys.insert(entry.key());
        }
        return keys;
    }

    const Nav::PathKey internetKey = key("203.0.113.1", "198.51.100.2");
    const Nav::PathKey mplsKey = key("192.0.2.1", "198.51.100.2", 7);
    const Ipsec::ConnectionKey connection{ip("203.0.113.1"), ip("198.51.100.2"), "default"};
    std::optional<SimRouter> router;
};

}  // namespace Agent::Sim::Test

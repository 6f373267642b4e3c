// One change from within any notification of another: the outcome must be that of the two done one
// after the other, in one order or the other.
//
// Every pair of the list below, at every notification inside the first, before the reactors are
// told of it and after. NAV_NESTED_SHARE=n takes one in n of these positions, 1 all of them.
#include <gtest/gtest.h>

#include <iostream>

#include "tests/oracle/Nested.h"

namespace Oracle {

namespace {

const std::string g1 = "/cliConfig/pathGroupConfig[g1]", g2 = "/cliConfig/pathGroupConfig[g2]";
const std::string siteA = "/remoteViaConfig[10.255.0.1]", siteB = "/remoteViaConfig[10.255.0.2]";
const std::string dst1 = "/remoteVia[192.0.2.1]", dst2 = "/remoteVia[192.0.2.2]";
const std::string et1 = "/ipStatusDir/ipIntfStatus[et1]", et2 = "/ipStatusDir/ipIntfStatus[et2]";
const std::string et3 = "/ipStatusDir/ipIntfStatus[et3]";
const std::string policy = "/cliConfig/policyConfig[p1]", rules = "/appProfilePolicyRuleList";
const std::string gold = "/cliConfig/loadBalanceProfile[gold]";
const std::string vrfIds = "/routingHwRouteStatus/vrfStatus", bindings = "/cliConfig/vrfConfig";

// Three interfaces in two VRFs, two groups that share a site, a destination and an interface.
std::vector<Event> setUp() {
    return {text(et1 + "/activeAddrWithMask", "203.0.113.1/24"),
            text(et2 + "/activeAddrWithMask", "203.0.113.2/24"),
            text(et3 + "/vrfName", "blue"),
            text(et3 + "/activeAddrWithMask", "203.0.113.3/24"),
            number(vrfIds + "[default]/vrfId", 5),
            number(vrfIds + "[blue]/vrfId", 10),
            set("/nexthopStatus/vrf[default]"),
            set("/nexthopStatus/vrf[blue]"),
            set("/forwardingStatus/fec[1]",
                {Vel::Datum::List{{Vel::Datum::Members{{"hop", {Vel::String("203.0.113.254")}},
                                                       {"intfId", {Vel::String("et1")}}}},
                                  {Vel::Datum::Members{{"hop", {Vel::String("203.0.113.253")}},
                                                       {"intfId", {Vel::String("et3")}}}}}}),
            text(g1 + "/ipsecProfile", "psk"),
            set(g1 + "/localIntf[et1]"),
            set(g1 + "/localIntf[et2]"),
            set(g1 + siteA + dst1),
            set(g1 + siteA + dst2),
            set(g1 + siteB + dst2),
            set(g2 + "/localIntf[et2]"),
            set(g2 + "/localIntf[et3]"),
            set(g2 + siteA + dst1),
            number(policy + rules + "[10]/appProfileId", 1),
            text(policy + rules + "[10]/lbGrpName", "gold"),
            number(policy + rules + "[20]/appProfileId", 1),
            text(policy + rules + "[20]/lbGrpName", "silver"),
            set(policy + "/defaultRuleCfgd"),
            text(policy + "/defaultLbGrpName", "silver"),
            number(gold + "/pathGroupPriority[g1]", 1),
            number("/cliConfig/loadBalanceProfile[silver]/pathGroupPriority[g2]", 2),
            text(bindings + "[default]/policyName", "p1"),
            text(bindings + "[blue]/policyName", "p1"),
            set("/cliConfig/policyConfig[p2]"),
            set("/cliConfig/navConfigured")};
}

std::vector<Event> changes() {
    return {text(et1 + "/activeAddrWithMask", "203.0.113.9/24"),
            text(et1 + "/activeAddrWithMask", "0.0.0.0/0"),
            del(et1),
            text(et2 + "/vrfName", "blue"),
            text(et3 + "/vrfName", "red"),
            text("/ipStatusDir/ipIntfStatus[et4]/activeAddrWithMask", "203.0.113.4/24"),
            del(g1),
            set(g1),
            set("/cliConfig/pathGroupConfig[g3]/localIntf[et1]"),
            del(g1 + "/localIntf[et1]"),
            set(g1 + "/localIntf[et3]"),
            set(g2 + "/localIntf[et1]"),
            del(g1 + siteA),
            del(g1 + siteA + dst1),
            set(g1 + siteA + dst1),
            set(g1 + siteB + dst1),
            set(g2 + "/remoteViaConfig[10.255.0.3]/remoteVia[192.0.2.3]"),
            text(g1 + "/ipsecProfile", "cert"),
            text(g1 + "/ipsecProfile", ""),
            text(g2 + "/ipsecProfile", "psk"),
            number(vrfIds + "[blue]/vrfId", 11),
            number(vrfIds + "[blue]/vrfId", 0),
            number(vrfIds + "[blue]/vrfId", 5),
            del(vrfIds + "[blue]"),
            del("/nexthopStatus/vrf[default]"),
            set("/nexthopStatus/vrf[default]"),
            set("/nexthopStatus/vrf[red]"),
            del("/nexthopStatus/vrf[default]/nexthop[192.0.2.1]"),
            del("/ipsecPathStatusDir/ipsecPathStatus[203.0.113.1,192.0.2.1,default]"),
            number("/ipsecPathStatusDir/ipsecPathStatus[203.0.113.1,192.0.2.1,default]"
                   "/connectionState",
                   2),
            set("/cliConfig/navConfigured", {false}),
            set("/cliConfig/navConfigured"),
            del(policy),
            number(policy + "/configVersion", 7),
            del(policy + rules + "[10]"),
            text(bindings + "[default]/policyName", "p2"),
            text(bindings + "[default]/policyName", "p1"),
            del(bindings + "[blue]"),
            number(gold + "/pathGroupPriority[g1]", 3),
            number(gold + "/latency", 20),
            del(gold + "/pathGroupPriority[g1]"),
            del(gold)};
}

class Nested : public testing::Test {
  protected:
    // Every pair of these at every position, from the world that these events lead to.
    void matrix(bool services, const std::vector<Event>& first,
                const std::vector<Event>& outers = changes(),
                const std::vector<Event>& inners = changes()) {
        World base;
        std::optional<Services> answering;
        if (services) answering.emplace(base.in);
        for (const auto& events : {setUp(), first})
            for (const Event& event : events) base.apply(event), base.settle();
        answering.reset();
        for (const Event& outer : outers)
            for (const Event& inner : inners)
                pair(base, services, outer, inner, outers.size() * inners.size());
        std::cout << runs_ << " runs, " << failures_ << " failed" << std::endl;
        EXPECT_EQ(failures_, 0u);
    }

  private:
    // One in `share` of the positions, others for each pair; the first too where pairs are few, all
    // of a single pair.
    void pair(const World& base, bool services, const Event& outer, const Event& inner,
              size_t pairs) {
        static const size_t given = setting("NAV_NESTED_SHARE", 60);
        const bool few = pairs <= 16;
        const size_t share = pairs == 1 ? 1 : few ? std::min<size_t>(given, 199) : given;
        Pair pair(base, services, outer, inner);
        for (const bool before : {true, false}) {
            const size_t first = 1 + ++pairs_ * 7 % share;
            for (size_t position = few ? 1 : first;;
                 position += position < first ? first - 1 : share) {
                const std::optional<std::string> failure = pair.run(position, before);
                if (!failure) break;
                ++runs_;
                if (failure->empty()) continue;
                if (++failures_ <= setting("NAV_NESTED_SHOWN", 10)) ADD_FAILURE() << *failure;
            }
        }
    }

    const ThrowingAssertions assertions_;
    size_t pairs_ = 0, runs_ = 0, failures_ = 0;
};

TEST_F(Nested, ChangesEndAsOneAfterTheOther) {
    matrix(false, {});
}
TEST_F(Nested, WithServicesThatAnswerInside) {
    matrix(true, {});
}
TEST_F(Nested, WithoutResolver) {
    matrix(false, {del("/nexthopStatus/vrf[default]"), del("/nexthopStatus/vrf[blue]")});
}
TEST_F(Nested, FromSwitchedOff) {
    matrix(true, {set("/cliConfig/navConfigured", {false})});
}
// With two profiles that can give a site of both groups different constraints.
TEST_F(Nested, PairsThatMatterAtFewPositions) {
    const std::string silver = "/cliConfig/loadBalanceProfile[silver]";
    const std::string blue = vrfIds + "[blue]/vrfId";
    const Event toP1 = text(bindings + "[blue]/policyName", "p1");
    const Event toP2 = text(bindings + "[blue]/policyName", "p2");
    const std::vector<Event> first{number(silver + "/latency", 30),
                                   number(silver + "/jitter", 30),
                                   set(g1 + siteB + "/remoteVia[192.0.2.3]"),
                                   set(g2 + siteB + "/remoteVia[192.0.2.4]"),
                                   set("/cliConfig/policyConfig[p2]/defaultRuleCfgd"),
                                   text("/cliConfig/policyConfig[p2]/defaultLbGrpName", "gold")};
    for (const auto& [outer, inner] : std::initializer_list<std::pair<Event, Event>>{
             {del(g1 + siteA + dst1), del("/nexthopStatus/vrf[default]")},
             {del(g1 + siteA), set(g1 + siteA + dst1)},
             {del(g1 + siteB), set("/cliConfig/loadBalanceProfile[bronze]")},
             {number(blue, 0), number(blue, 10)},
             {number(blue, 11), number(blue, 10)},
             {number(blue, 11), number(policy + "/configVersion", 7)},
             {number(blue, 11), toP2},
             {toP2, toP1},
             {del(bindings + "[blue]"), toP2}})
        matrix(true, first, {outer}, {inner});
}
// With every index in use, paths are added within the removal of others and the other way round.
TEST_F(Nested, WithAllIndicesInUse) {
    const std::string full = "/cliConfig/pathGroupConfig[full]";
    const std::string et5 = "/ipStatusDir/ipIntfStatus[et5]/activeAddrWithMask";
    std::vector<Event> fill{text(full + "/ipsecProfile", "psk"), text(et5, "203.0.113.5/24"),
                            set(full + "/localIntf[et5]")};
    for (size_t n = 5; n < Nav::NavConstants::maxPathIndex; ++n)  // setUp() makes five paths
        fill.push_back(
            set(full + (n % 2 ? siteA : siteB) + "/remoteVia[198.18.0." + std::to_string(n) + "]"));
    const std::vector<Event> removals{del(full),
                                      del(full + siteA),
                                      del(full + siteB + "/remoteVia[198.18.0.10]"),
                                      del(full + "/localIntf[et5]"),
                                      text(full + "/ipsecProfile", ""),
                                      text(et5, "0.0.0.0/0"),
                                      del("/ipStatusDir/ipIntfStatus[et5]"),
                                      set("/cliConfig/navConfigured", {false})};
    const std::vector<Event> additions{set(g1 + "/localIntf[et3]"),  // a path, then two
                                       set(g2 + siteB + "/remoteVia[192.0.2.9]")};
    matrix(true, fill, removals, additions);
    matrix(true, fill, additions, removals);
}

}  // namespace

}  // namespace Oracle

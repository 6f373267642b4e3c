// The monitor and the lookups on a real kernel.
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <random>

#include "tests/agent_linux/Namespace.h"

namespace Agent::Linux {
namespace {

// A fresh monitor reads everything from dumps; one that followed events must show the same.
InterfaceView fresh() {
    return Monitored().monitor.interfaces();
}

class Kernel : public InNamespace {
  protected:
    void SetUp() override {
        InNamespace::SetUp();
        if (IsSkipped()) return;
        sysctl("ipv6/conf/default/accept_dad", "0");
        ASSERT_TRUE(
            ip("link set lo up\n"
               "link add name wa type veth peer name wb\n"
               "link add name wc type veth peer name wd\n"
               "link set wa up\nlink set wb up\nlink set wc up\nlink set wd up\n"
               "addr add 203.0.113.1/24 dev wa\n"
               "addr add 192.0.2.1/24 dev wc\n"
               "addr add 2001:db8:a::7/64 dev wa nodad preferred_lft 0\n"  // deprecated
               "addr add 2001:db8:a::1/64 dev wa nodad\n"));
    }

    // A destination, its vias as "hop link weight" (0.0.0.0: on the link), output interface and
    // source address.
    struct Expected {
        const char *to, *vias, *dev = "", *from = "0.0.0.0";
    };
    static void expectRoutes(std::initializer_list<Expected> routes) {
        for (const Expected& each : routes) {
            const RouteQuery query{addr(each.to), addr(each.from), if_nametoindex(each.dev)};
            RequestSocket requests;
            const RouteResult result = FibLookup(requests).lookup(std::span(&query, 1))[0];
            EXPECT_NE(result.kind, RouteResult::Kind::failed) << each.to;
            std::string vias;
            char name[IF_NAMESIZE];
            for (const RouteVia& via : result.vias)
                vias += (vias.empty() ? "" : ", ") + via.hop.stringValue() + " " +
                        if_indextoname(via.ifIndex, name) + " " + std::to_string(via.weight);
            EXPECT_EQ(vias, each.vias) << each.to << " from " << each.from << " dev " << each.dev;
        }
    }
};

TEST_F(Kernel, PrimaryAddressesFollowTheKernel) {
    Monitored kernel;
    for (const char* name : {"wa", "wb", "wc", "wd"})
        ASSERT_TRUE(kernel.await([&] { return kernel.named(name).up; }));
    EXPECT_EQ(kernel.primary("wa") + kernel.primary("lo"),
              "203.0.113.1/24"
              "0.0.0.0/0");
    // A secondary, one of another subnet, one that no packet may leave the link with.
    ASSERT_TRUE(
        ip("addr add 203.0.113.2/24 dev wa\naddr add 198.51.100.1/24 dev wa\n"
           "addr add 169.254.0.1/16 dev wc scope link\naddr del 192.0.2.1/24 dev wc\n"
           "addr add 2001:db8:a::2/64 dev wa nodad\n"
           "addr add 10.3.0.1 peer 10.3.0.2/32 dev wd\n"));
    ASSERT_TRUE(kernel.await([&] { return kernel.primary("wd") == "10.3.0.1/32"; }));
    EXPECT_EQ(kernel.primary("wa") + kernel.primary("wc"),
              "203.0.113.1/24"
              "0.0.0.0/0");
    EXPECT_EQ(kernel.named("wa").primary6.stringValue(), "2001:db8:a::1/64");
    // The secondary is promoted, and then comes after the address that was primary before it.
    sysctl("ipv4/conf/wa/promote_secondaries", "1");
    ASSERT_TRUE(ip("addr del 203.0.113.1/24 dev wa\naddr del 2001:db8:a::1/64 dev wa\n"));
    ASSERT_TRUE(kernel.await([&] { return kernel.primary("wa") == "198.51.100.1/24"; }));
    ASSERT_TRUE(kernel.await([&] { return kernel.monitor.interfaces() == fresh(); }));
    const int before = kernel.interfaceRounds;
    ASSERT_TRUE(ip("link set wa promisc on\nroute add 10.0.0.0/8 via 198.51.100.9\n"));
    ASSERT_TRUE(kernel.settle());
    EXPECT_EQ(kernel.interfaceRounds, before) << "announced although nothing changed";
    // Changes within microseconds end in the last one; a peer that goes down takes the carrier.
    flap("wd", {false, true, false, true});
    flap("wb", {false, true, false});
    ASSERT_TRUE(kernel.await([&] { return !kernel.named("wa").up && kernel.named("wd").up; }));
    EXPECT_EQ(kernel.primary("wa"), "0.0.0.0/0");
}

TEST_F(Kernel, RandomChangesLeaveWhatAFreshReadShows) {
    const unsigned seed = 7;
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    auto pick = [&](auto... choices) {
        const std::string all[] = {std::string(choices)...};
        return all[random() % sizeof...(choices)];
    };
    Monitored kernel, overrun(1);
    for (int round = 0; round < 60; ++round) {
        std::string commands;
        for (int i = 0; i < 8; ++i) {
            const std::string dev = pick("wa", "wc", "wd");
            const std::string add = pick("add ", "del ");
            const std::string host = std::to_string(random() % 4 + 1);
            const std::string upDown = pick(" up", " down"),
                              renamed = pick("wc name wz", "wz name wc"),
                              pair = pick("link del x", "link add name x type veth peer name y");
            commands += pick("addr " + add + "10.1." + host + ".1/24 dev " + dev,
                             "addr " + add + "10.1.1." + host + "/24 dev " + dev,
                             "addr " + add + "2001:db8::" + host + "/64 dev " + dev,
                             "link set " + dev + upDown, "link set " + renamed, pair);
            commands += '\n';
        }
        ip(commands, ">/dev/null ");  // some of them are refused
        for (Monitored* follower : {&kernel, &overrun})
            ASSERT_TRUE(follower->await([&] { return follower->monitor.interfaces() == fresh(); }))
                << "seed " << seed << " round " << round << "\n"
                << commands;
    }
    EXPECT_EQ(kernel.monitor.counters().overruns, 0U);
    EXPECT_GE(overrun.monitor.counters().overruns, 1U);
    EXPECT_TRUE(overrun.await([&] { return overrun.monitor.settled(); }));
    EXPECT_EQ(overrun.roundAfterRefresh, overrun.monitor.counters().refreshes)
        << "what changed during an overrun is not looked up";
}

// Destinations that share routes and others that do not, as nested prefixes, tables and rules come
// and go: the answers kept become those of the kernel.
TEST_F(Kernel, KeptAnswersFollowRandomRoutesAndRules) {
    const unsigned seed = 5;
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    const auto pick = [&](std::initializer_list<const char*> choices) {
        return std::string(choices.begin()[random() % choices.size()]) + " ";
    };
    std::vector<RouteQuery> queries;
    for (const char* to : {"10.1.1.1", "10.1.1.2", "10.1.2.1", "10.2.0.1", "2001:db8:1:1::1",
                           "2001:db8:1:1::2", "2001:db8:1:2::1", "2001:db8:2::1"})
        for (const char* dev : {"wa", "wc"}) {
            const bool v6 = addr(to).isV6(), wa = std::string_view(dev) == "wa";
            queries.push_back({addr(to),
                               addr(wa   ? v6 ? "2001:db8:a::1" : "203.0.113.1"
                                    : v6 ? "2001:db8:c::1"
                                         : "192.0.2.1"),
                               if_nametoindex(dev)});
        }
    ASSERT_TRUE(ip("addr add 2001:db8:c::1/64 dev wc nodad\n"));
    RequestSocket requests;
    FibLookup fresh(requests);
    // At first, when the answers have settled, a burst that concerns two tables, and in one of them
    // only one of two destinations that had one route.
    const std::string by = "route replace 10.1.0.0/16 via 203.0.113.";
    ip("rule add priority 9 lookup 77 to 10.1.1.2\n" + by + "8\n");
    Monitored kernel;
    for (int round = 0; round < 300; ++round) {
        std::string commands = round == 2 ? by + "9\n" + by + "8 table 77\n" : "";
        for (unsigned i = round <= 2 ? 4 : random() % 4; i < 4; ++i) {
            const std::string table = pick({"main", "main", "77"});
            const auto route = [&](const std::string& prefix, const std::string& by) {
                commands += "route " + pick({"replace", "del"}) + prefix + by + "table " + table;
            };
            switch (random() % 12) {
                case 0:
                    commands += "rule " + pick({"add", "del"}) + "priority 9 lookup 77 " +
                                pick({"from 203.0.113.1", "to 10.1.1.2"});
                    break;
                case 1:
                    commands += "link set wc " + pick({"up", "down"});
                    break;
                case 2:
                    route(pick({"throw 10.1.0.0/16", "unreachable 10.1.1.2"}), "");
                    break;
                case 3:
                case 4:
                case 5:
                    route(pick({"2001:db8:1::/48", "2001:db8:1:1::/64", "2001:db8::/32"}),
                          pick({"via 2001:db8:a::8", "via 2001:db8:a::9", "via 2001:db8:c::8"}));
                    break;
                default:
                    route(pick({"10.1.0.0/16", "10.1.1.0/24", "10.1.1.2", "10.0.0.0/8", "default"}),
                          pick({"via 203.0.113.8", "via 203.0.113.9", "via 192.0.2.8", "dev wa"}));
            }
            commands += "\n";
        }
        ip(commands, ">/dev/null ");  // some of them are refused
        ASSERT_TRUE(kernel.await([&] {
            const auto kept = kernel.monitor.lookup(queries);
            return std::ranges::equal(kept, fresh.lookup(queries), {},
                                      [](const RouteResult* each) { return *each; });
        })) << "round "
            << round << "\n"
            << commands;
    }
}

TEST_F(Kernel, RulesLeadToLookupsAndRoutesToOtherDestinationsToNone) {
    Monitored kernel;
    ASSERT_TRUE(kernel.await([&] { return kernel.named("wa").up && kernel.monitor.settled(); }));
    kernel.monitor.lookup(std::vector<RouteQuery>{{addr("10.1.0.1")}, {addr("2001:db8:1::1")}});
    ASSERT_TRUE(sh("ip -6 rule add from 2001:db8:a::1 table 77"));
    EXPECT_TRUE(kernel.settle());
    // Once no other event comes with it.
    int hop = 2;
    EXPECT_TRUE(kernel.await([&] {
        const auto events = kernel.monitor.counters().events;
        ip("route replace 10.7.0.0/16 via 203.0.113." + std::to_string(++hop) + "\n");
        kernel.monitor.handleReadable();
        return kernel.monitor.counters().events == events + 1 && kernel.monitor.settled();
    }));
}

// The first event is acted upon at once, and lookups go on while events keep coming.
TEST_F(Kernel, SteadyChurnDelaysNoLookupForLong) {
    Loom::ManualClock clock;
    Loom::TaskScheduler scheduler(clock);
    std::vector<Loom::Instant> rounds;
    KernelMonitor monitor(scheduler, {[] {}, [&] { rounds.push_back(clock.now()); }});
    monitor.start();
    monitor.lookup(std::vector<RouteQuery>{{addr("10.1.0.1")}});
    clock.advance(2 * KernelMonitor::maxHold);
    const auto begin = clock.now();
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(ip("route replace 10.1.0.0/16 via 203.0.113." + std::to_string(i + 2) + "\n"));
        monitor.handleReadable();
        scheduler.runDue();
        clock.advance(KernelMonitor::settleTime / 2);
    }
    ASSERT_GE(rounds.size(), 5U);
    EXPECT_EQ(rounds[1], begin);  // rounds[0] is the start's
    for (size_t i = 2; i < rounds.size(); ++i)
        EXPECT_LE(rounds[i] - rounds[i - 1], KernelMonitor::maxHold + KernelMonitor::settleTime);
}

TEST_F(Kernel, LookupsGiveEveryLegOrNone) {
    Monitored kernel;
    ASSERT_TRUE(
        ip("route add 10.1.0.0/16 nexthop via 203.0.113.9 weight 3 "
           "nexthop via 192.0.2.9 weight 200\n"
           "route add 10.2.0.0/16 via inet6 2001:db8:a::9 dev wa\n"
           "route add blackhole 10.3.0.0/16\nroute add unreachable 10.4.0.0/16\n"
           "route add prohibit 10.5.0.0/16\n"
           "route add 2001:db8:1::/48 nexthop via 2001:db8:a::8 dev wa "
           "nexthop via 2001:db8:a::9 dev wa weight 2\n"
           "route add blackhole 2001:db8:3::/48\n"));
    expectRoutes({{"10.1.2.3", "192.0.2.9 wc 200, 203.0.113.9 wa 3"},
                  {"10.1.2.3", "203.0.113.9 wa 3", "wa"},
                  {"10.2.0.1", "2001:db8:a::9 wa 1"},
                  {"2001:db8:1::1", "2001:db8:a::8 wa 1, 2001:db8:a::9 wa 2"},
                  {"203.0.113.77", "0.0.0.0 wa 1"}});
    for (const char* to : {"10.3.0.1", "2001:db8:3::1", "10.4.0.1", "10.5.0.1", "10.6.0.1",
                           "2001:db8:9::1", "192.0.2.1"})
        expectRoutes({{to, ""}});
    const RouteQuery nowhere{addr("10.1.2.3"), {}, 9999};  // no such interface
    EXPECT_EQ(kernel.monitor.lookup(std::span(&nowhere, 1))[0]->kind, RouteResult::Kind::failed);
    // More than one send takes, each with its own result.
    std::vector<RouteQuery> queries;
    for (uint32_t i = 0; i < 200; ++i)
        queries.push_back({addr(i % 3 == 0 ? "10.1.2.3" : i % 3 == 1 ? "10.2.0.1" : "10.3.0.1")});
    const auto results = kernel.monitor.lookup(queries);
    for (uint32_t i = 0; i < 200; ++i) EXPECT_EQ(results[i]->vias.size(), 2 - i % 3) << i;
    // A leg's link that goes down takes the leg; the route is not announced.
    ASSERT_TRUE(kernel.settle());
    flap("wc", {false});
    ASSERT_TRUE(kernel.settle());
    expectRoutes({{"10.1.2.3", "203.0.113.9 wa 1"}});
}

// Two providers: default routes of two metrics, and rules that select a table by source.
TEST_F(Kernel, LookupsGoByInterfaceAndSource) {
    ASSERT_TRUE(
        ip("addr add 2001:db8:c::1/64 dev wc nodad\n"
           "route add default via 203.0.113.9 metric 100\n"
           "route add default via 192.0.2.9 metric 200\n"
           "route add default via 2001:db8:a::9 metric 100\n"
           "route add default via 2001:db8:c::9 metric 200\n"
           "route add unreachable 10.4.0.0/16\nroute add unreachable 2001:db8:4::/48\n"));
    const char *const v4 = "10.1.0.1", *const v6 = "2001:db8:1::1";
    expectRoutes({{v4, "192.0.2.9 wc 1", "wc", "192.0.2.1"},
                  {v6, "2001:db8:a::9 wa 1", "wa", "2001:db8:a::1"},
                  {v6, "2001:db8:c::9 wc 1", "wc", "2001:db8:c::1"},
                  {"10.4.0.1", "", "wc", "192.0.2.1"},
                  {"2001:db8:4::1", "", "wc", "2001:db8:c::1"}});
    ASSERT_TRUE(ip("rule add from 192.0.2.1 table 77\nroute add default via 192.0.2.7 table 77\n"));
    ASSERT_TRUE(ip("route add default via 2001:db8:c::7 table 77\n"));
    ASSERT_TRUE(sh("ip -6 rule add from 2001:db8:c::1 table 77"));
    expectRoutes({{v4, "192.0.2.7 wc 1", "wc", "192.0.2.1"},
                  {v4, "203.0.113.9 wa 1", "wa", "203.0.113.1"},
                  {v6, "2001:db8:c::7 wc 1", "wc", "2001:db8:c::1"},
                  {v6, "2001:db8:a::9 wa 1", "wa", "2001:db8:a::1"},
                  {v4, "", "wa", "198.51.100.77"}});  // not an address of the host
}

TEST_F(Kernel, NeighboursThatAnOperatorSetStayAsTheyAre) {
    Monitored kernel;
    const auto wa = if_nametoindex("wa");
    const std::vector<Neighbour> fixed{{wa, addr("203.0.113.5")}, {wa, addr("2001:db8:a::5")}};
    for (const std::string state : {"permanent", "noarp"}) {
        for (const Neighbour& each : fixed)
            ASSERT_TRUE(ip("neigh replace " + each.addr.stringValue() +
                           " lladdr 02:00:00:00:00:05 dev wa nud " + state + "\n"));
        kernel.monitor.solicit(fixed);  // before the event has been read
        for (const Neighbour& each : fixed) {
            EXPECT_TRUE(kernel.monitor.neighbourResolved(each));
            EXPECT_TRUE(sh("ip neigh show nud " + state + " | grep -q " + each.addr.stringValue()));
        }
    }
    ASSERT_TRUE(ip("neigh del 203.0.113.5 dev wa\nneigh del 2001:db8:a::5 dev wa\n"));
    for (const Neighbour& each : fixed)
        EXPECT_TRUE(kernel.await([&] { return !kernel.monitor.neighbourResolved(each); }));
    // A link without ARP needs no neighbours.
    ASSERT_TRUE(ip("link set wa arp off\n"));
    EXPECT_TRUE(kernel.await([&] { return kernel.monitor.neighbourResolved(fixed[0]); }));
}

}  // namespace
}  // namespace Agent::Linux

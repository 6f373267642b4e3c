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
               "addr add 2001:db8:a::1/64 dev wa nodad\n"));
    }

    static RouteResult route(Monitored& kernel, std::string_view to, uint32_t vrfIndex = 0,
                             uint32_t mark = 0) {
        const RouteQuery query{addr(to), vrfIndex, mark};
        return kernel.monitor.lookup(std::span(&query, 1))[0];
    }
    static RouteResult via(std::vector<RouteVia> vias) { return {RouteKind::forwarded, vias}; }
};

TEST_F(Kernel, PrimaryAddressesFollowTheKernel) {
    Monitored kernel;
    for (const char* name : {"wa", "wb", "wc", "wd"})
        ASSERT_TRUE(kernel.await([&] { return kernel.named(name).up; }));
    EXPECT_EQ(kernel.primary("wa"), "203.0.113.1/24");
    EXPECT_EQ(kernel.named("lo").primary4, Netz::IpAddrWithMask());
    // A secondary, one of another subnet, one that no packet may leave the link with.
    ASSERT_TRUE(
        ip("addr add 203.0.113.2/24 dev wa\naddr add 198.51.100.1/24 dev wa\n"
           "addr add 169.254.0.1/16 dev wc scope link\naddr del 192.0.2.1/24 dev wc\n"
           "addr add 2001:db8:a::2/64 dev wa nodad\n"
           "addr add 10.3.0.1 peer 10.3.0.2/32 dev wd\n"));
    ASSERT_TRUE(kernel.await([&] { return kernel.primary("wc") == "0.0.0.0/0"; }));
    EXPECT_EQ(kernel.primary("wa"), "203.0.113.1/24");
    ASSERT_TRUE(kernel.await([&] { return kernel.primary("wd") == "10.3.0.1/32"; }));
    EXPECT_EQ(kernel.named("wa").primary6.stringValue(), "2001:db8:a::1/64");
    // The secondary is promoted, and then comes after the address that was primary before it.
    sysctl("ipv4/conf/wa/promote_secondaries", "1");
    ASSERT_TRUE(ip("addr del 203.0.113.1/24 dev wa\naddr del 2001:db8:a::1/64 dev wa\n"));
    ASSERT_TRUE(kernel.await([&] { return kernel.primary("wa") == "198.51.100.1/24"; }));
    ASSERT_TRUE(kernel.await([&] { return kernel.monitor.interfaces() == fresh(); }));
    const int before = kernel.interfaceRounds;
    ASSERT_TRUE(ip("link set wa mtu 1400\nroute add 10.0.0.0/8 via 198.51.100.9\n"));
    ASSERT_TRUE(kernel.settle());
    EXPECT_EQ(kernel.interfaceRounds, before) << "announced although nothing changed";
}

TEST_F(Kernel, LinkThatFlapsWithinAMillisecondEndsInItsLastState) {
    Monitored kernel;
    ASSERT_TRUE(kernel.await([&] { return kernel.named("wa").up && kernel.named("wc").up; }));
    for (int round = 0; round < 50; ++round) {
        flap("wa", {false, true});
        flap("wc", {false, true, false});
        ASSERT_TRUE(kernel.await([&] { return kernel.named("wa").up && !kernel.named("wc").up; }));
        ASSERT_EQ(kernel.primary("wa"), "203.0.113.1/24");
        ASSERT_EQ(kernel.primary("wc"), "0.0.0.0/0");
        flap("wc", {true, false, true});
        ASSERT_TRUE(kernel.await([&] { return kernel.primary("wc") == "192.0.2.1/24"; }));
    }
    // A peer that goes takes the carrier, and so the address.
    flap("wb", {false});
    ASSERT_TRUE(kernel.await([&] { return kernel.primary("wa") == "0.0.0.0/0"; }));
    EXPECT_FALSE(kernel.named("wa").up);
}

TEST_F(Kernel, RandomChangesLeaveWhatAFreshReadShows) {
    const unsigned seed = 7;
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    auto pick = [&](auto... choices) {
        const std::string all[] = {std::string(choices)...};
        return all[random() % sizeof...(choices)];
    };
    ip("link add name br type bridge\n");
    Monitored kernel, overrun(1);
    for (int round = 0; round < 60; ++round) {
        std::string commands;
        for (int i = 0; i < 8; ++i) {
            const std::string dev = pick("wa", "wc", "wd");
            const std::string add = pick("add ", "del ");
            const std::string host = std::to_string(random() % 4 + 1);
            commands += pick("addr " + add + "10.1." + host + ".1/24 dev " + dev,
                             "addr " + add + "10.1.1." + host + "/24 dev " + dev,
                             "addr " + add + "2001:db8::" + host + "/64 dev " + dev,
                             "link set " + dev + pick(" up", " down"),
                             "link set wd " + pick("master br", "nomaster"),
                             "link set " + pick("wc name wz", "wz name wc"),
                             pick("link del x", "link add name x type veth peer name y"));
            commands += '\n';
        }
        // Part of it is refused, which is fine.
        FILE* pipe = popen("ip -force -batch - 2>/dev/null", "w");
        std::fputs(commands.c_str(), pipe);
        pclose(pipe);
        for (Monitored* follower : {&kernel, &overrun})
            ASSERT_TRUE(follower->await([&] { return follower->monitor.interfaces() == fresh(); }))
                << "seed " << seed << " round " << round << "\n"
                << commands;
    }
    EXPECT_EQ(kernel.monitor.counters().overruns, 0U);
}

TEST_F(Kernel, OverrunReadsTheTablesOnceAndRecovers) {
    Monitored kernel(1);  // the kernel makes that its smallest, good for a few messages
    const auto refreshes = kernel.monitor.counters().refreshes;
    std::string flood;
    for (int i = 1; i < 200; ++i) flood += "addr add 10.2." + std::to_string(i) + ".1/24 dev wc\n";
    ASSERT_TRUE(ip(flood + "addr del 192.0.2.1/24 dev wc\naddr del 203.0.113.1/24 dev wa\n"));
    ASSERT_TRUE(kernel.await([&] { return kernel.primary("wc") == "10.2.1.1/24"; }));
    EXPECT_EQ(kernel.primary("wa"), "0.0.0.0/0");
    EXPECT_GE(kernel.monitor.counters().overruns, 1U);
    EXPECT_EQ(kernel.monitor.counters().refreshes, refreshes + 1);
    // And events are followed again.
    ASSERT_TRUE(ip("addr add 203.0.113.7/24 dev wa\n"));
    ASSERT_TRUE(kernel.await([&] { return kernel.primary("wa") == "203.0.113.7/24"; }));
}

TEST_F(Kernel, LookupsGiveEveryLegAndTellWhyThereIsNone) {
    Monitored kernel;
    const auto wa = if_nametoindex("wa"), wc = if_nametoindex("wc");
    ASSERT_TRUE(
        ip("route add 10.1.0.0/16 nexthop via 203.0.113.9 weight 3 "
           "nexthop via 192.0.2.9 weight 200\n"
           "route add 10.2.0.0/16 via inet6 2001:db8:a::9 dev wa\n"
           "route add blackhole 10.3.0.0/16\nroute add unreachable 10.4.0.0/16\n"
           "route add prohibit 10.5.0.0/16\n"
           "route add 2001:db8:1::/48 nexthop via 2001:db8:a::8 dev wa "
           "nexthop via 2001:db8:a::9 dev wa weight 2\n"
           "route add blackhole 2001:db8:3::/48\n"
           "route add 10.6.0.0/16 via 192.0.2.6 table 77\nrule add fwmark 66 table 77\n"));
    EXPECT_EQ(route(kernel, "10.1.2.3"),
              via({{addr("192.0.2.9"), wc, 200, false}, {addr("203.0.113.9"), wa, 3, false}}));
    EXPECT_EQ(route(kernel, "10.2.0.1"), via({{addr("2001:db8:a::9"), wa, 1, false}}));
    EXPECT_EQ(route(kernel, "2001:db8:1::1"),
              via({{addr("2001:db8:a::8"), wa, 1, false}, {addr("2001:db8:a::9"), wa, 2, false}}));
    EXPECT_EQ(route(kernel, "203.0.113.77"), via({{addr("203.0.113.77"), wa, 1, true}}));
    EXPECT_EQ(route(kernel, "10.6.0.1").kind, RouteKind::noRoute);
    EXPECT_EQ(route(kernel, "10.6.0.1", 0, 66), via({{addr("192.0.2.6"), wc, 1, false}}));
    EXPECT_EQ(route(kernel, "10.3.0.1").kind, RouteKind::blackhole);
    EXPECT_EQ(route(kernel, "2001:db8:3::1").kind, RouteKind::blackhole);
    EXPECT_EQ(route(kernel, "10.4.0.1").kind, RouteKind::unreachable);
    EXPECT_EQ(route(kernel, "10.5.0.1").kind, RouteKind::prohibited);
    EXPECT_EQ(route(kernel, "2001:db8:9::1").kind, RouteKind::noRoute);
    EXPECT_EQ(route(kernel, "192.0.2.1").kind, RouteKind::local);
    EXPECT_EQ(route(kernel, "10.1.2.3", 9999).kind, RouteKind::failed);  // no such device
    // More than go in one send, each answered in its place.
    std::vector<RouteQuery> queries;
    for (uint32_t i = 0; i < 1000; ++i)
        queries.push_back(
            {Netz::IpGenAddr::fromV4((i % 3 == 0 ? 0x0ac80000 : 0xcb007102) + i / 8)});
    const auto results = kernel.monitor.lookup(queries);
    for (uint32_t i = 0; i < 1000; ++i)
        EXPECT_EQ(results[i], i % 3 == 0 ? (RouteResult{RouteKind::noRoute, {}})
                                         : via({{queries[i].destination, wa, 1, true}}))
            << i;
    // A leg's link that goes down takes the leg, without word of the route.
    ASSERT_TRUE(kernel.settle());
    flap("wc", {false});
    ASSERT_TRUE(kernel.settle());
    EXPECT_EQ(route(kernel, "10.1.2.3"), via({{addr("203.0.113.9"), wa, 1, false}}));
}

TEST_F(Kernel, VrfsKeepTheSameAddressesAndRoutesApart) {
    Monitored kernel;
    if (!ip("link add blue type vrf table 100\nlink add red type vrf table 200\n"))
        GTEST_SKIP() << "this kernel has no VRF devices";
    ASSERT_TRUE(
        ip("link set blue up\nlink set red up\nlink set wa master blue\n"
           "link set wc master red\naddr add 203.0.113.1/24 dev wc\n"
           "route add 10.1.0.0/16 via 203.0.113.8 vrf blue\n"
           "route add 10.1.0.0/16 via 203.0.113.9 vrf red\n"));
    const auto wa = if_nametoindex("wa"), wc = if_nametoindex("wc");
    const auto blue = if_nametoindex("blue"), red = if_nametoindex("red");
    ASSERT_TRUE(kernel.await([&] { return kernel.monitor.interfaces() == fresh(); }));
    EXPECT_EQ(kernel.named("wa").vrf, (Vrf{"blue", 100, blue}));
    EXPECT_EQ(kernel.named("wc").vrf, (Vrf{"red", 200, red}));
    EXPECT_EQ(route(kernel, "10.1.0.1", blue), via({{addr("203.0.113.8"), wa, 1, false}}));
    EXPECT_EQ(route(kernel, "10.1.0.1", red), via({{addr("203.0.113.9"), wc, 1, false}}));
    EXPECT_EQ(route(kernel, "10.1.0.1").kind, RouteKind::noRoute);
    // Moving a port drops its routes without a word, and the address moves with it.
    ASSERT_TRUE(kernel.settle());
    ASSERT_TRUE(ip("link set wa nomaster\nlink set wc master blue\n"));
    ASSERT_TRUE(kernel.await([&] { return kernel.named("wc").vrf.name == L3::VrfName("blue"); }));
    EXPECT_EQ(kernel.named("wa").vrf.name, L3::VrfName("default"));
    EXPECT_EQ(kernel.monitor.interfaces(), fresh());
    EXPECT_NE(route(kernel, "10.1.0.1", red).kind, RouteKind::forwarded);
}

TEST_F(Kernel, NexthopObjectsAreFollowedWhereRoutesDoNotSpellThemOut) {
    for (const char* compatible : {"1", "0"}) {
        sysctl("ipv4/nexthop_compat_mode", compatible);
        Monitored kernel;
        ASSERT_TRUE(
            ip("nexthop add id 1 via 203.0.113.9 dev wa\nnexthop add id 2 dev wc\n"
               "nexthop add id 3 group 1,2/2,250\nnexthop add id 4 blackhole\n"
               "nexthop add id 5 via 2001:db8:a::9 dev wa\n"
               "route add 10.1.0.0/16 nhid 3\nroute add 10.2.0.0/16 nhid 1\n"
               "route add 10.3.0.0/16 nhid 4\nroute add 2001:db8:1::/48 nhid 5\n"));
        const auto wa = if_nametoindex("wa"), wc = if_nametoindex("wc");
        EXPECT_EQ(route(kernel, "10.1.0.1"),
                  via({{addr("10.1.0.1"), wc, 250, true}, {addr("203.0.113.9"), wa, 2, false}}));
        EXPECT_EQ(route(kernel, "10.2.0.1"), via({{addr("203.0.113.9"), wa, 1, false}}));
        EXPECT_EQ(route(kernel, "10.3.0.1").kind, RouteKind::blackhole);
        EXPECT_EQ(route(kernel, "2001:db8:1::1"), via({{addr("2001:db8:a::9"), wa, 1, false}}));
        // Deleting an object deletes its routes; only the object is announced.
        ASSERT_TRUE(kernel.settle());
        ASSERT_TRUE(ip("nexthop del id 1\n"));
        ASSERT_TRUE(kernel.settle());
        EXPECT_EQ(route(kernel, "10.2.0.1").kind, RouteKind::noRoute);
        EXPECT_EQ(route(kernel, "10.1.0.1"), via({{addr("10.1.0.1"), wc, 1, true}}));
        ASSERT_TRUE(ip("nexthop del id 3\nnexthop del id 2\nnexthop del id 4\nnexthop del id 5\n"));
    }
}

TEST_F(Kernel, NeighboursResolveOnRequestAndFail) {
    // wb answers for 203.0.113.2, to an address of this host too.
    sysctl("ipv4/conf/all/accept_local", "1");
    sysctl("ipv4/conf/wb/accept_local", "1");
    sysctl("ipv4/conf/wa/accept_local", "1");
    sysctl("ipv4/neigh/wa/retrans_time_ms", "20");
    sysctl("ipv4/neigh/wa/mcast_solicit", "1");
    ASSERT_TRUE(
        ip("addr add 203.0.113.2/32 dev wb\n"
           "neigh add 2001:db8:a::5 lladdr 02:00:00:00:00:05 dev wa\n"));
    Monitored kernel;
    const auto wa = if_nametoindex("wa");
    const Neighbour there{wa, addr("203.0.113.2")}, away{wa, addr("203.0.113.3")},
        elsewhere{if_nametoindex("wc"), addr("203.0.113.2")}, fixed{wa, addr("2001:db8:a::5")};
    EXPECT_TRUE(kernel.monitor.neighbourResolved(fixed));
    EXPECT_FALSE(kernel.monitor.neighbourResolved(there));
    kernel.monitor.solicit(std::vector{there, away});
    EXPECT_TRUE(kernel.await([&] { return kernel.monitor.neighbourResolved(there); }));
    EXPECT_FALSE(kernel.monitor.neighbourResolved(elsewhere));
    EXPECT_FALSE(kernel.monitor.neighbourResolved(away));
    EXPECT_EQ(kernel.monitor.counters().refusedSolicitations, 0U);
    // What events told is what a dump tells.
    EXPECT_TRUE(Monitored().monitor.neighbourResolved(there));
    ASSERT_TRUE(kernel.settle());
    flap("wa", {false});
    EXPECT_TRUE(kernel.await([&] { return !kernel.monitor.neighbourResolved(there); }));
}

}  // namespace
}  // namespace Agent::Linux

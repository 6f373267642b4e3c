// From the kernel's events to the paths: the agent in process, on the kernel's own network.
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

#ifdef __SANITIZE_ADDRESS__  // the sanitizer's own header is not packaged with every compiler
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

#include "agent/host/Host.h"
#include "agent/linux/LinuxPlatform.h"
#include "tests/linux_platform/Network.h"

namespace Agent::Linux {
namespace {

using std::chrono::milliseconds;

const char* const route = "Route Pending";
const char* const arp = "Arp Pending";
const char* const ipsec = "Ipsec Pending";
const char* const up = "Estab";

const std::string bothRoutes =
    "route replace 198.51.100.2 nexthop via 203.0.113.254 nexthop via 192.0.2.254\n"
    "route replace 198.51.100.3 nexthop via 203.0.113.254 nexthop via 192.0.2.254\n";

// Resident memory; what is allocated with the address sanitizer, which holds on to freed memory.
size_t bytesInUse() {
#ifdef __SANITIZE_ADDRESS__
    return __sanitizer_get_current_allocated_bytes();
#else
    malloc_trim(0);
    size_t pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * static_cast<size_t>(getpagesize());
#endif
}

class KernelRoad : public Network {
  protected:
    // An agent whose path group uses both links towards two sites, with these routes.
    void start(const std::string& routes) {
        ASSERT_TRUE(ip(routes));
        host.emplace(*scheduler, std::make_unique<LinuxPlatform>(loop));
        auto& group = config().pathGroupConfigIs("internet");
        for (const char* link : {"wan1", "wan2"}) group.localIntfIs(Netz::IntfId(link));
        for (const std::string site : {"2", "3"})
            group.remoteViaConfigIs(addr("10.255.0." + site))
                .remoteViaIs(addr("198.51.100." + site));
        config().navConfiguredIs(true);
    }
    Nav::NavCliConfig& config() { return *host->inputs().cliConfig; }

    // Awaits these states of both links to the first and then to the second site; null: no path.
    testing::AssertionResult become(std::initializer_list<const char*> states) {
        static const char* const keys[] = {"203.0.113.1 198.51.100.2", "192.0.2.1 198.51.100.2",
                                           "203.0.113.1 198.51.100.3", "192.0.2.1 198.51.100.3"};
        Paths wanted;
        for (size_t i = 0; i < states.size(); ++i)
            if (states.begin()[i]) wanted[keys[i]] = states.begin()[i];
        if (await([&] { return readPaths(host->show("NAVPATHS")) == wanted; }))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << host->show("NAVPATHS");
    }
    bool await(const std::function<bool()>& condition) {
        const auto deadline = clock.now() + std::chrono::seconds(10);
        while (!condition() && clock.now() < deadline) loop.runOnce(milliseconds(20));
        return clock.now() < deadline;
    }
    // How many paths of the first site are usable.
    unsigned usable() {
        const auto* site =
            host->inputs().siteGroupStatus->siteGroupStatusEntry({"internet", addr("10.255.0.2")});
        return site ? site->pathIndexEntry().size() : 0;
    }
    size_t fecs() { return host->inputs().forwardingStatus->fec().size(); }
    size_t programmed() { return host->inputs().hwPathStatus->hwPathStatusList().size(); }
    // What a site's address goes by.
    std::string vias(const char* to) {
        const auto* result = host->inputs().nexthopStatus->vrf("default")->nexthop(addr(to));
        std::string text;
        for (const auto& via : host->inputs().forwardingStatus->fec(result->fecId)->vias())
            text += via.hop.stringValue() + " " + via.intfId.stringValue() + " " +
                    std::to_string(via.weight) + "; ";
        return text;
    }

    Loom::MonotonicClock clock;
    const Vel::Ptr<Vel::Scheduler> scheduler = Vel::make<Vel::Scheduler>(clock);
    EventLoop loop{*scheduler};
    std::optional<Host> host;
};

TEST_F(KernelRoad, PathsFollowTheRoutesOfTwoLinksToTwoSites) {
    start("route add 198.51.100.2 via 203.0.113.254\n");
    ASSERT_TRUE(become({up, route, route, route}));
    ASSERT_TRUE(
        ip("route replace 198.51.100.2 nexthop via 203.0.113.254 weight 3 "
           "nexthop via 192.0.2.254 weight 200\n"
           "route add 198.51.100.0/24 nexthop via 203.0.113.254 nexthop via 192.0.2.254\n"));
    ASSERT_TRUE(become({up, up, up, up}));
    EXPECT_EQ(vias("198.51.100.2"), "192.0.2.254 wan2 200; 203.0.113.254 wan1 3; ");
    EXPECT_EQ(vias("198.51.100.3"), "192.0.2.254 wan2 1; 203.0.113.254 wan1 1; ");
    // A route that leaves the link leaves its path with the via of before, but not usable.
    ASSERT_TRUE(ip("route replace 198.51.100.2 via 192.0.2.254\n"));
    ASSERT_TRUE(become({arp, up, up, up}));
    EXPECT_EQ(usable(), 1U);
    // The more specific route goes: the other one is there for both.
    ASSERT_TRUE(ip("route del 198.51.100.2\n"));
    ASSERT_TRUE(become({up, up, up, up}));
    EXPECT_EQ(fecs(), 1U);
    ASSERT_TRUE(ip("route add blackhole 198.51.100.2\nroute del 198.51.100.0/24\n"));
    ASSERT_TRUE(become({route, route, route, route}));
    EXPECT_EQ(fecs() + programmed() + usable(), 0U);
}

TEST_F(KernelRoad, PathsFollowAddressProfileAndSwitch) {
    start(bothRoutes);
    ASSERT_TRUE(become({up, up, up, up}));
    ASSERT_TRUE(ip("addr del 192.0.2.1/24 dev wan2\n"));
    ASSERT_TRUE(become({up, nullptr, up, nullptr}));
    EXPECT_EQ(programmed(), 2U);
    ASSERT_TRUE(ip("addr add 192.0.2.1/24 dev wan2\n"));
    ASSERT_TRUE(become({up, up, up, up}));
    config().pathGroupConfigIs("internet").ipsecProfileIs("strong");
    ASSERT_TRUE(become({ipsec, ipsec, ipsec, ipsec}));
    EXPECT_EQ(programmed(), 0U) << "used without the encryption that was asked for";
    config().pathGroupConfigIs("internet").ipsecProfileIs("");
    for (const bool on : {false, true}) config().navConfiguredIs(on);
    ASSERT_TRUE(become({up, up, up, up}));
}

TEST_F(KernelRoad, NeighbourThatFailsTakesItsPathsUntilItComesBack) {
    ASSERT_TRUE(inInternet("addr del 203.0.113.254/24 dev isp1\n"));
    start(bothRoutes);
    ASSERT_TRUE(become({arp, up, arp, up}));
    // The kernel was asked and has given up; it has to be asked again.
    const char* const failed = "ip neigh show nud failed | grep -q 203.0.113.254";
    ASSERT_TRUE(await([&] { return std::system(failed) == 0; }));
    ASSERT_TRUE(inInternet("addr add 203.0.113.254/24 dev isp1\n"));
    ASSERT_TRUE(become({up, up, up, up}));
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(inInternet("addr del 192.0.2.254/24 dev isp2\n"));
        ASSERT_TRUE(ip("neigh change 192.0.2.254 dev wan2 nud failed\n"));
        ASSERT_TRUE(become({up, arp, up, arp}));
        EXPECT_EQ(usable(), 1U);
        ASSERT_TRUE(inInternet("addr add 192.0.2.254/24 dev isp2\n"));
        ASSERT_TRUE(become({up, up, up, up}));
    }
}

// With a link that goes down, the kernel drops the routes that have no other leg.
TEST_F(KernelRoad, LinkThatFlapsAThousandTimesLeavesNothingBehind) {
    const char* const single = "route replace 198.51.100.3 via 203.0.113.254\n";
    start(bothRoutes + single);
    size_t before = 0, now = 0;
    for (int flaps = 0; flaps <= 1000; ++flaps) {
        flap("wan1", {false, true});
        // Now and then all that comes of it happens, else it is cut short by the next.
        loop.runOnce(milliseconds(flaps % 3));
        if (flaps % 20 != 0) continue;
        ASSERT_TRUE(become({up, up, route, route})) << flaps;
        ASSERT_TRUE(ip(single));
        ASSERT_TRUE(become({up, up, up, route})) << flaps;
        now = bytesInUse();
        if (flaps == 200) before = now;
    }
    std::printf("in use after 200 flaps %zu bytes, after 1000 %zu\n", before, now);
    EXPECT_LT(now, before + (1 << 19));
    EXPECT_EQ(fecs(), 2U);
    EXPECT_EQ(programmed(), 3U);
}

TEST_F(KernelRoad, NamesThatMoveFromLinkToLinkTakeThePathsAlong) {
    start(bothRoutes);
    ASSERT_TRUE(ip("link set wan2 down\nlink set wan2 name spare\nlink set spare up\n"));
    ASSERT_TRUE(become({up, nullptr, up, nullptr}));
    ASSERT_TRUE(
        ip("link set wan1 down\nlink set wan1 name wan2\nlink set wan2 up\n"
           "link set spare down\nlink set spare name wan1\nlink set wan1 up\n" +
           bothRoutes));
    ASSERT_TRUE(become({up, up, up, up}));
    EXPECT_EQ(vias("198.51.100.3"), "192.0.2.254 wan1 1; 203.0.113.254 wan2 1; ");
}

}  // namespace
}  // namespace Agent::Linux

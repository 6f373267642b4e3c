// From the kernel's events to the paths: the agent in process, a router with two WAN links in a
// network namespace, and the internet at their other ends in another one.
#include <fcntl.h>
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <regex>

#include "agent/host/Host.h"
#include "agent/linux/LinuxPlatform.h"
#include "tests/agent_linux/Namespace.h"

namespace Agent::Linux {
namespace {

using std::chrono::milliseconds;

const char* const route = "Route Pending";
const char* const arp = "Arp Pending";
const char* const up = "Estab";

const std::string bothRoutes =
    "route replace 198.51.100.2 nexthop via 203.0.113.254 nexthop via 192.0.2.254\n"
    "route replace 198.51.100.3 nexthop via 203.0.113.254 nexthop via 192.0.2.254\n";

class KernelRoad : public InNamespace {
  protected:
    using Paths = std::map<std::string, std::string>;  // state by "source destination"

    void SetUp() override {
        InNamespace::SetUp();
        if (IsSkipped()) return;
        internet_ = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
        InNamespace::SetUp();
        sysctl("ipv6/conf/default/disable_ipv6", "1");
        ASSERT_TRUE(ip("link set lo up\n"));
        connect("1", "203.0.113.");
        connect("2", "192.0.2.");
    }
    void connect(const std::string& link, const std::string& network) {
        const std::string wan = "wan" + link, isp = "isp" + link;
        ASSERT_TRUE(ip("link add " + wan + " type veth peer name " + isp + "\naddr add " + network +
                       "1/24 dev " + wan + "\nlink set " + wan + " up\nlink set " + isp +
                       " netns " + internet() + "\n"));
        // The kernel gives up on a neighbour after 0.3 s.
        sysctl("ipv4/neigh/" + wan + "/retrans_time_ms", "100");
        ASSERT_TRUE(inInternet("link set " + isp + " up\naddr add " + network + "254/24 dev " +
                               isp + "\n"));
    }
    void TearDown() override { close(internet_); }

    std::string internet() const {
        return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(internet_);
    }
    bool inInternet(const std::string& commands) const {
        return ip(commands, "nsenter --net=" + internet() + " ");
    }
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

    // Awaits these states of both links to the first and then to the second site.
    testing::AssertionResult become(std::initializer_list<const char*> states) {
        static const char* const keys[] = {"203.0.113.1 198.51.100.2", "192.0.2.1 198.51.100.2",
                                           "203.0.113.1 198.51.100.3", "192.0.2.1 198.51.100.3"};
        Paths wanted;
        for (size_t i = 0; i < states.size(); ++i) wanted[keys[i]] = states.begin()[i];
        if (await([&] { return paths() == wanted; })) return testing::AssertionSuccess();
        return testing::AssertionFailure() << host->show("NAVPATHS");
    }
    Paths paths() {
        static const std::regex entry(
            "'source' : '([^']*)', 'destination' : '([^']*)',[^}]*'state' : '([^']*)'");
        const std::string text = host->show("NAVPATHS");
        Paths paths;
        for (std::sregex_iterator at(text.begin(), text.end(), entry), end; at != end; ++at)
            paths[(*at)[1].str() + " " + (*at)[2].str()] = (*at)[3];
        return paths;
    }
    bool await(const std::function<bool()>& condition) {
        const auto deadline = clock.now() + std::chrono::seconds(10);
        while (!condition() && clock.now() < deadline) loop.runOnce(milliseconds(20));
        return clock.now() < deadline;
    }
    // Bytes of the heap, the ring of events being full of one. 0 under the address sanitizer, which
    // finds leaks itself.
    size_t inUse() {
        for (size_t i = 0; i < Events::capacity; ++i)
            host->events().add({Event::Kind::path, "Path1", "is up", {}, {}, {}});
        return mallinfo2().uordblks;
    }
    size_t fecs() { return host->inputs().forwardingStatus->fec().size(); }
    size_t programmed() { return host->inputs().hwPathStatus->hwPathStatusList().size(); }
    // The FEC of a site's address.
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

  private:
    int internet_ = -1;
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
    // A new path to an address that another one requests is looked up, too.
    auto& group = config().pathGroupConfigIs("internet");
    group.localIntfDel(Netz::IntfId("wan2"));
    ASSERT_TRUE(ip("route add 198.51.100.9 via 203.0.113.254\n"));
    ASSERT_TRUE(await([&] { return vias("198.51.100.2") == "203.0.113.254 wan1 3; "; }));
    group.localIntfIs(Netz::IntfId("wan2"));
    ASSERT_TRUE(become({up, up, up, up}));
    // Another device has the name and address of a link before the agent looks.
    ASSERT_TRUE(ip("link del wan1\n"));
    connect("1", "203.0.113.");
    ASSERT_TRUE(ip(bothRoutes));
    ASSERT_TRUE(await(
        [&] { return vias("198.51.100.2") == "192.0.2.254 wan2 1; 203.0.113.254 wan1 1; "; }));
    ASSERT_TRUE(become({up, up, up, up}));
    // A path whose route is by another link keeps its last via, but is not usable.
    ASSERT_TRUE(
        ip("route del 198.51.100.2\nroute del 198.51.100.3\n"
           "route replace 198.51.100.0/24 via 192.0.2.254\n"));
    ASSERT_TRUE(become({arp, up, arp, up}));
    EXPECT_TRUE(await([&] { return programmed() == 2; }));
    ASSERT_TRUE(ip("route add blackhole 198.51.100.2\nroute del 198.51.100.0/24\n"));
    ASSERT_TRUE(become({route, route, route, route}));
    EXPECT_TRUE(await([&] { return fecs() + programmed() == 0; }));
}

TEST_F(KernelRoad, NeighbourThatFailsTakesItsPathsUntilItComesBack) {
    ASSERT_TRUE(inInternet("addr del 203.0.113.254/24 dev isp1\n"));
    start(bothRoutes);
    ASSERT_TRUE(become({arp, up, arp, up}));
    // The kernel gives up, and tries again each time it is asked.
    for (const std::string state : {"failed", "incomplete", "failed"})
        ASSERT_TRUE(
            await([&] { return sh("ip neigh show nud " + state + " | grep -q 203.0.113.254"); }));
    ASSERT_TRUE(inInternet("addr add 203.0.113.254/24 dev isp1\n"));
    ASSERT_TRUE(become({up, up, up, up}));
}

// With a link that goes down, the kernel drops the routes that have no other leg.
TEST_F(KernelRoad, LinkThatFlapsAThousandTimesLeavesNothingBehind) {
    const char* const single = "route replace 198.51.100.3 via 203.0.113.254\n";
    start(bothRoutes + single);
    size_t before = 0;
    for (int flaps = 0; flaps <= 1000; ++flaps) {
        flap("wan1", {false, true});
        // Now and then all that comes of it happens, else it is cut short by the next.
        loop.runOnce(milliseconds(flaps % 3));
        if (flaps % 20 != 0) continue;
        ASSERT_TRUE(become({up, up, route, route})) << flaps;
        ASSERT_TRUE(ip(single));
        ASSERT_TRUE(become({up, up, up, route})) << flaps;
        if (flaps == 200) before = inUse();
    }
    // Ten runs grew by 1 to 4.2 kB, and as much is left as a margin. A leak of the smallest
    // allocation at each flap is 25 kB.
    EXPECT_LE(inUse(), before + 8400) << before << " bytes in use after 200 flaps";
    EXPECT_TRUE(await([&] { return fecs() == 2 && programmed() == 3; }));
}

}  // namespace
}  // namespace Agent::Linux

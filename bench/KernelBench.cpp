// The time from the kernel's event of a route change to the update of 128 tracked next hops, in a
// separate network namespace. The time starts when the event can be read on a second socket. The
// next change waits until all work for the previous one is done and its burst of events has ended.
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <vector>

#include "agent/host/Host.h"
#include "agent/linux/LinuxPlatform.h"
#include "bench/Bench.h"
#include "bench/Zebra.h"

namespace Bench {
namespace {

using Agent::Linux::NetlinkSocket;
using Netz::IpGenAddr;

constexpr U32 tracked = 128;
constexpr U32 network = 0xc6336400;  // 198.51.100.0/24, the network of the next hops

std::vector<IpGenAddr> nexthops() {
    std::vector<IpGenAddr> addresses;
    for (U32 i = 1; i <= tracked; ++i) addresses.push_back(IpGenAddr::fromV4(network + i));
    return addresses;
}
IpGenAddr gateway(U32 round) {
    return IpGenAddr::fromV4(0xcb0071fd + round % 2);  // 203.0.113.253 and .254
}

// A link "wan1" with two gateways, and a route to all next hops through one of them.
class Kernel {
  public:
    // Moves this process into the namespace; `refusal` gives the reason if that is not possible.
    Kernel() : refusal_(prepare()) {}
    const std::string& refusal() const { return refusal_; }
    Agent::Linux::RequestSocket& requests() { return *requests_; }

    // Routes all next hops through the other gateway, and returns when the event has arrived.
    IpGenAddr changeRoute() {
        hears(0);
        const IpGenAddr to = gateway(++round_);
        requests_->exchange(
            1,
            [&](Agent::Linux::MessageWriter& writer, uint32_t sequence, size_t) {
                rtmsg header{};
                header.rtm_family = AF_INET;
                header.rtm_dst_len = 24;
                header.rtm_table = RT_TABLE_MAIN;
                header.rtm_protocol = RTPROT_BOOT;
                header.rtm_type = RTN_UNICAST;
                writer.begin(RTM_NEWROUTE, NLM_F_CREATE | NLM_F_REPLACE | NLM_F_ACK, sequence,
                             header);
                writer.attribute(RTA_DST, IpGenAddr::fromV4(network));
                writer.attribute(RTA_GATEWAY, to);
                writer.attribute(RTA_OIF, if_nametoindex("wan1"));
            },
            [](size_t, const auto&) {});
        hears(1000);
        return to;
    }

  private:
    const char* prepare() {
        const auto uid = getuid();
        if (unshare(CLONE_NEWNET) != 0) {
            if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return "no network namespace";
            std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
        }
        FILE* const ip = popen("ip -batch - >/dev/null 2>&1", "w");
        if (!ip) return "no shell";
        std::fputs(
            "link set lo up\nlink add wan1 type veth peer name isp1\n"
            "addr add 203.0.113.1/24 dev wan1\nlink set wan1 up\nlink set isp1 up\n"
            "neigh add 203.0.113.253 lladdr 02:00:00:00:00:01 dev wan1 nud permanent\n"
            "neigh add 203.0.113.254 lladdr 02:00:00:00:00:01 dev wan1 nud permanent\n"
            "route add 198.51.100.0/24 via 203.0.113.253 dev wan1\n",
            ip);
        if (pclose(ip) != 0) return "no veth links, or no iproute2";
        events_.emplace(1 << 20);
        events_->subscribe(RTNLGRP_IPV4_ROUTE);
        requests_.emplace();
        return "";
    }
    // Processes the events of so many milliseconds, and then those that have arrived.
    void hears(int patience) {
        pollfd ready{events_->fd(), POLLIN, 0};
        poll(&ready, 1, patience);
        while (events_->receive([](auto) {}) != NetlinkSocket::Read::empty) {
        }
    }

    U32 round_ = 0;
    std::optional<NetlinkSocket> events_;
    std::optional<Agent::Linux::RequestSocket> requests_;
    const std::string refusal_;
};

Kernel& kernel() {
    static Kernel kernel;
    return kernel;
}

// Lookups only.
class Lookups {
  public:
    Lookups() {
        for (const IpGenAddr& nexthop : nexthops()) queries_.push_back({nexthop});
    }
    bool follow(const IpGenAddr& to) {
        const auto routes = lookup_.lookup(queries_);
        return std::ranges::all_of(routes, [&](const auto& route) {
            return route.vias.size() == 1 && route.vias.front().hop == to;
        });
    }
    void rest() {}

  private:
    std::vector<Agent::Linux::RouteQuery> queries_;
    Agent::Linux::FibLookup lookup_{kernel().requests()};
};

// The host with a path to each next hop, until the change has been processed: results and FECs are
// published, and the paths' states have followed.
class Ours {
  public:
    Ours() {
        auto& group = config().pathGroupConfigIs("internet");
        group.localIntfIs(Netz::IntfId("wan1"));
        for (U32 site = 0x0aff0001; const IpGenAddr& nexthop : nexthops())
            group.remoteViaConfigIs(IpGenAddr::fromV4(site++)).remoteViaIs(nexthop);
        config().navConfiguredIs(true);
    }
    bool follow(const IpGenAddr& to) {
        const auto deadline = clock_.now() + std::chrono::seconds(5);
        while (!published(to)) {
            if (clock_.now() > deadline) return false;
            loop_.runOnce(std::chrono::milliseconds(20));
        }
        loop_.settle();  // a round of the loop may end before all paths have followed
        return true;
    }
    void rest() {
        const auto end = clock_.now() + 5 * Agent::Linux::KernelMonitor::maxHold;
        while (clock_.now() < end) loop_.runOnce(end - clock_.now());
    }

  private:
    Nav::NavCliConfig& config() { return *host_.inputs().cliConfig; }
    // Equal next hops share a FEC, so one has to be checked.
    bool published(const IpGenAddr& to) {
        const auto* vrf = host_.inputs().nexthopStatus->vrf("default");
        if (!vrf || vrf->nexthop().size() != tracked) return false;
        const auto& fecs = host_.inputs().forwardingStatus->fec();
        return fecs.size() == 1 && (*fecs.begin()).second.vias().front().hop == to;
    }

    Loom::MonotonicClock clock_;
    const Vel::Ptr<Vel::Scheduler> scheduler_ = Vel::make<Vel::Scheduler>(clock_);
    Agent::EventLoop loop_{*scheduler_};
    Agent::Host host_{*scheduler_, std::make_unique<Agent::Linux::LinuxPlatform>(loop_)};
};

struct ZebraSide : Zebra {
    ZebraSide() : Zebra(nexthops()) {}
    void rest() {}
};

template <class Side>
void routeChange(benchmark::State& state, const std::string& refusal = "") {
    for (const std::string& reason : {kernel().refusal(), refusal})
        if (!reason.empty()) return leftOut(state, reason);
    Side side;
    // The initial notifications of a side are over once it follows a change.
    bool followed = side.follow(kernel().changeRoute());
    for (auto _ : state) {
        side.rest();
        const IpGenAddr to = kernel().changeRoute();
        timed(state, [&] { followed &= side.follow(to); });
    }
    if (!followed) state.SkipWithError("the change was not followed");
}
void ours(benchmark::State& state) {
    routeChange<Ours>(state);
}
void lookups(benchmark::State& state) {
    routeChange<Lookups>(state);
}
void zebra(benchmark::State& state) {
    routeChange<ZebraSide>(state, Zebra::refusal());
}

BENCHMARK(ours)->UseManualTime()->Iterations(10)->Name("kernel/ours");
BENCHMARK(lookups)->UseManualTime()->Iterations(10)->Name("kernel/limit");
BENCHMARK(zebra)->UseManualTime()->Iterations(10)->Name("kernel/FRR zebra");

}  // namespace
}  // namespace Bench

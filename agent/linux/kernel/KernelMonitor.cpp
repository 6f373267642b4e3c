#include "agent/linux/kernel/KernelMonitor.h"

#include <linux/fib_rules.h>
#include <linux/if_link.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "agent/linux/kernel/LinuxTrace.h"
#include "agent/linux/kernel/Objects.h"
#include "platform/netz/Error.h"

namespace Agent::Linux {

namespace {

// The number of reads, of a batch of datagrams each, before the event thread continues with other
// work.
constexpr unsigned readsPerCall = 256 / NetlinkSocket::batch;
// The number of dumps in a row, when links or neighbours change while they are dumped.
constexpr int refreshAttempts = 4;

constexpr unsigned groups[] = {
    RTNLGRP_LINK,    RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR, RTNLGRP_IPV4_ROUTE,
    RTNLGRP_NEIGH,   RTNLGRP_IPV6_ROUTE,  RTNLGRP_IPV4_RULE,   RTNLGRP_IPV6_RULE,
    RTNLGRP_NEXTHOP, RTNLGRP_TUNNEL,
};

bool isOwnRule(const Message& message) {
    for (const NetlinkAttribute& attribute : attributesAfter<fib_rule_hdr>(message))
        if (attribute.type == FRA_PROTOCOL)
            return readAs<uint8_t>(attribute.data).value_or(0) == ownProtocol;
    return false;
}

}  // namespace

KernelMonitor::KernelMonitor(Loom::TaskScheduler& scheduler, Listener listener, int receiveBuffer)
    : scheduler_(scheduler),
      listener_(std::move(listener)),
      events_(receiveBuffer),
      forwardingTimer_(scheduler, Loom::call<&KernelMonitor::handleForwardingTimer>(*this)),
      refreshTimer_(scheduler, Loom::call<&KernelMonitor::handleRefreshTimer>(*this)) {
    for (unsigned group : groups) events_.subscribe(group);
}

void KernelMonitor::start() {
    if (!refresh()) throw Vel::Error("netlink: the kernel's links and neighbours cannot be read");
}

bool KernelMonitor::handleReadable() {
    const auto take = [this](Bytes data) {
        if (overrunAt_) return;
        for (const Message& message : Messages(data)) handleEvent(message);
    };
    auto read = NetlinkSocket::Read::data;
    for (unsigned i = 0; i < readsPerCall && read != NetlinkSocket::Read::empty; ++i) {
        read = events_.receive(take);
        if (read == NetlinkSocket::Read::overrun) handleOverrun();
    }
    if (overrunAt_)
        refreshTimer_.armAt(std::min(scheduler_.now() + quietTime, *overrunAt_ + maxQuietWait));
    publishInterfaces();
    return read == NetlinkSocket::Read::empty && !overrunAt_;
}

void KernelMonitor::handleEvent(const Message& message) {
    ++counters_.events;
    switch (message.type) {
        case RTM_NEWLINK:
        case RTM_DELLINK:
        case RTM_NEWADDR:
        case RTM_DELADDR:
            links_.apply(message);
            linksTouched_ = true;
            return anythingChanged();
        case RTM_NEWNEIGH:
        case RTM_DELNEIGH:
            // Of several routers, IPv6 prefers those that are resolved.
            if (neighbours_.apply(message)) anythingChanged();
            return;
        case RTM_NEWROUTE:
        case RTM_DELROUTE: {
            const rtmsg route = message.header<rtmsg>().value_or(rtmsg{});
            // A cached exception, such as a path MTU, does not change the FIB.
            if ((route.rtm_flags & RTM_F_CLONED) != 0) return;
            if (route.rtm_protocol == ownProtocol) return handleOwn(message);
            listener_.onRoute(message);
            const auto entry = fibEntryOf(message);
            if (entry && answers_.routeChanged(*entry, scheduler_.now())) forwardingChanged();
            return;
        }
        case RTM_NEWNEXTHOP:
        case RTM_DELNEXTHOP:
            if (message.header<nhmsg>().value_or(nhmsg{}).nh_protocol == ownProtocol)
                return handleOwn(message);
            listener_.onRoute(message);
            return anythingChanged();
        // A VNI of a tunnel device; the kernel does not say who removed it.
        case RTM_DELTUNNEL:
            return listener_.onOwnChanged();
        case RTM_NEWRULE:
        case RTM_DELRULE:
            if (isOwnRule(message)) return handleOwn(message);
            return anythingChanged();
    }
}

void KernelMonitor::handleOwn(const Message& message) {
    if (message.port != ownPort_) listener_.onOwnChanged();
}

void KernelMonitor::handleOverrun() {
    ++counters_.overruns;
    if (overrunAt_) return;
    overrunAt_ = scheduler_.now();
    DUOLOG(linuxTrace, 4, "Kernel events were lost; links and neighbours are read again");
}

void KernelMonitor::anythingChanged() {
    answers_.anythingChanged(scheduler_.now());
    forwardingChanged();
}

void KernelMonitor::forwardingChanged() {
    lastChange_ = scheduler_.now();
    if (!firstChange_) firstChange_ = lastChange_;
    const bool isFirst = *firstChange_ >= lastRound_ + maxHold;  // of a burst
    forwardingTimer_.armAt(isFirst ? *firstChange_
                                   : std::min(lastChange_ + settleTime, *firstChange_ + maxHold));
}

void KernelMonitor::handleForwardingTimer() {
    DUOLOG_ENTRY(linuxTrace);
    firstChange_.reset();
    lastRound_ = scheduler_.now();
    if (const auto settled = lastChange_ + settleTime; lastRound_ < settled)
        forwardingTimer_.armAt(settled);
    listener_.onForwarding();
}

void KernelMonitor::handleRefreshTimer() {
    DUOLOG_ENTRY(linuxTrace);
    if (refresh()) return;
    overrunAt_ = scheduler_.now();
    refreshTimer_.armAt(*overrunAt_ + maxQuietWait);
}

bool KernelMonitor::refresh() {
    int error = EAGAIN;
    for (int attempt = 0; attempt < refreshAttempts && error != 0; ++attempt) {
        LinkState links;
        NeighbourState neighbours;
        error = dump(links, neighbours);
        if (error != 0) continue;
        links_ = std::move(links);
        neighbours_ = std::move(neighbours);
    }
    if (error != 0) {
        ++counters_.failedRefreshes;
        DUOLOG(linuxTrace, 3,
               "Reading the kernel's links and neighbours failed: ", std::strerror(error));
        return false;
    }
    ++counters_.refreshes;
    overrunAt_.reset();
    firstChange_.reset();
    forwardingTimer_.disarm();
    answers_.anythingChanged(scheduler_.now());
    lastRound_ = scheduler_.now();
    linksTouched_ = true;
    publishInterfaces();
    listener_.onForwarding();
    return true;
}

namespace {

// Returns 0 or the error; EAGAIN if something changed meanwhile.
int readLinks(RequestSocket& requests, LinkState& links) {
    const auto take = [&](const Message& message) { links.apply(message); };
    const int error = requests.dump(
        [](MessageWriter& writer, uint32_t sequence) {
            writer.begin(RTM_GETLINK, NLM_F_DUMP, sequence, ifinfomsg{});
            writer.attribute(IFLA_EXT_MASK, uint32_t{RTEXT_FILTER_SKIP_STATS});
        },
        take);
    if (error != 0) return error;
    return requests.dump(
        [](MessageWriter& writer, uint32_t sequence) {
            writer.begin(RTM_GETADDR, NLM_F_DUMP, sequence, ifaddrmsg{});
        },
        take);
}

}  // namespace

std::optional<InterfaceView> readInterfaces(RequestSocket& requests) {
    for (int attempt = 0; attempt < refreshAttempts; ++attempt) {
        LinkState links;
        if (readLinks(requests, links) == 0) return links.view();
    }
    return {};
}

int KernelMonitor::dump(LinkState& links, NeighbourState& neighbours) {
    if (const int error = readLinks(requests_, links)) return error;
    auto takeNeighbours = [&](const Message& message) { neighbours.apply(message); };
    return requests_.dump(
        [](MessageWriter& writer, uint32_t sequence) {
            writer.begin(RTM_GETNEIGH, NLM_F_DUMP, sequence, ndmsg{});
        },
        takeNeighbours);
}

void KernelMonitor::publishInterfaces() {
    if (!std::exchange(linksTouched_, false)) return;
    InterfaceView view = links_.view();
    if (view == view_) return;
    view_ = std::move(view);
    listener_.onInterfaces();
}

void KernelMonitor::solicit(std::span<const Neighbour> neighbours) {
    if (!handleReadable()) return;
    std::vector<Neighbour> dynamic;
    for (const Neighbour& neighbour : neighbours)
        if (neighbours_.dynamic(neighbour) && !links_.needsNoNeighbour(neighbour.ifIndex))
            dynamic.push_back(neighbour);
    std::string reason;
    const size_t refused = Linux::solicit(requests_, dynamic, reason);
    if (refused != 0 && counters_.refusedSolicitations == 0)
        DUOLOG(linuxTrace, 3, "The kernel refuses to resolve neighbours for the agent: ", reason);
    counters_.refusedSolicitations += refused;
}

}  // namespace Agent::Linux

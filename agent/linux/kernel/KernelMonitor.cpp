#include "agent/linux/kernel/KernelMonitor.h"

#include <linux/if_link.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "agent/linux/kernel/LinuxTrace.h"
#include "platform/netz/Error.h"

namespace Agent::Linux {

namespace {

// Datagrams taken in at a time, so that a flood does not keep the event thread for itself.
constexpr int readsPerCall = 256;
// In a row, when the tables change while they are read.
constexpr int refreshAttempts = 4;

constexpr unsigned groups[] = {
    RTNLGRP_LINK,       RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR, RTNLGRP_IPV4_ROUTE, RTNLGRP_NEIGH,
    RTNLGRP_IPV6_ROUTE, RTNLGRP_IPV4_RULE,   RTNLGRP_IPV6_RULE,   RTNLGRP_NEXTHOP,
};

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
    if (!refresh()) throw Vel::Error("netlink: the kernel's tables cannot be read");
}

void KernelMonitor::handleReadable() {
    Bytes data;
    for (int reads = 0; reads < readsPerCall; ++reads) {
        const auto read = events_.receive(data);
        if (read == NetlinkSocket::Read::empty) break;
        if (read == NetlinkSocket::Read::overrun) {
            handleOverrun();
        } else if (!overrunAt_) {
            for (const Message& message : Messages(data)) handleEvent(message);
        }
    }
    if (overrunAt_)
        refreshTimer_.armAt(std::min(scheduler_.now() + quietTime, *overrunAt_ + maxQuietWait));
    publishInterfaces();
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
            return forwardingChanged();
        case RTM_NEWNEIGH:
        case RTM_DELNEIGH:
            if (neighbours_.apply(message)) forwardingChanged();
            return;
        case RTM_NEWROUTE:
        case RTM_DELROUTE:
            // A cached exception, such as a path MTU, is no change of the FIB.
            if ((message.header<rtmsg>().value_or(rtmsg{}).rtm_flags & RTM_F_CLONED) != 0) return;
            return forwardingChanged();
        case RTM_NEWRULE:
        case RTM_DELRULE:
        case RTM_NEWNEXTHOP:
        case RTM_DELNEXTHOP:
            return forwardingChanged();
    }
}

void KernelMonitor::handleOverrun() {
    ++counters_.overruns;
    if (overrunAt_) return;
    overrunAt_ = scheduler_.now();
    DUOLOG(linuxTrace, 4, "Kernel events were lost; reading the tables again");
}

void KernelMonitor::forwardingChanged() {
    const auto now = scheduler_.now();
    if (!firstChange_) firstChange_ = now;
    forwardingTimer_.armAt(std::min(now + settleTime, *firstChange_ + maxHold));
}

void KernelMonitor::handleForwardingTimer() {
    firstChange_.reset();
    DUOLOG_ENTRY(linuxTrace);
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
        LinkTable links;
        NeighbourTable neighbours;
        error = readTables(links, neighbours);
        if (error != 0) continue;
        links_ = std::move(links);
        neighbours_ = std::move(neighbours);
    }
    if (error != 0) {
        ++counters_.failedRefreshes;
        DUOLOG(linuxTrace, 3, "Reading the kernel's tables failed: ", std::strerror(error));
        return false;
    }
    ++counters_.refreshes;
    overrunAt_.reset();
    firstChange_.reset();
    forwardingTimer_.disarm();
    linksTouched_ = true;
    publishInterfaces();
    listener_.onForwarding();
    return true;
}

int KernelMonitor::readTables(LinkTable& links, NeighbourTable& neighbours) {
    auto takeLinks = [&](const Message& message) { links.apply(message); };
    auto takeNeighbours = [&](const Message& message) { neighbours.apply(message); };
    int error = requests_.dump(
        [](MessageWriter& writer, uint32_t sequence) {
            writer.begin(RTM_GETLINK, NLM_F_DUMP, sequence, ifinfomsg{});
            writer.attribute(IFLA_EXT_MASK, uint32_t{RTEXT_FILTER_SKIP_STATS});
        },
        takeLinks);
    if (error != 0) return error;
    error = requests_.dump(
        [](MessageWriter& writer, uint32_t sequence) {
            writer.begin(RTM_GETADDR, NLM_F_DUMP, sequence, ifaddrmsg{});
        },
        takeLinks);
    if (error != 0) return error;
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
    std::string reason;
    const size_t refused = Linux::solicit(requests_, neighbours, reason);
    if (refused != 0 && counters_.refusedSolicitations == 0)
        DUOLOG(linuxTrace, 3, "The kernel does not resolve neighbours for us: ", reason);
    counters_.refusedSolicitations += refused;
}

}  // namespace Agent::Linux

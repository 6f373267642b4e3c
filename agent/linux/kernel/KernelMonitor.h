// Follows the kernel: updates interfaces and neighbours according to its events, and reports when
// routes have to be looked up again.
//
// The owner polls fd() and calls handleReadable() while it is readable; timers run on the scheduler
// it passes. Used on the event thread. A listener may use the monitor from its callbacks, but not
// destroy it.
//
// Invariants: interfaces() is the value announced last. Events are applied in the kernel's order,
// so that changes which cancel out result in the state that a fresh dump would show. After an
// overrun the state is out of date until links and neighbours have been dumped again; until then
// the old state is shown and no neighbour is solicited.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "agent/linux/kernel/FibLookup.h"
#include "agent/linux/kernel/LinkState.h"
#include "agent/linux/kernel/LookupCache.h"
#include "agent/linux/kernel/NeighbourState.h"
#include "agent/linux/kernel/NetlinkSocket.h"
#include "platform/loom/TaskScheduler.h"

namespace Agent::Linux {

// The interfaces and VRFs as the kernel has them now; nothing if they cannot be read.
std::optional<InterfaceView> readInterfaces(RequestSocket& requests);

class KernelMonitor {
  public:
    // The first event of a burst is handled at once. Later ones are coalesced: the next round of
    // lookups runs `settleTime` after the last event, but at most `maxHold` after the first. A
    // burst has ended when no round took place for `maxHold`. The kernel may announce a change
    // before it takes effect, so a round sooner after an event is followed by another one.
    static constexpr Loom::Duration settleTime = LookupCache::settleTime;
    static constexpr Loom::Duration maxHold = std::chrono::milliseconds(10);
    // After an overrun links and neighbours are dumped when the kernel has sent nothing for
    // `quietTime`, since a dump during a flood leads to the next overrun; at most `maxQuietWait`
    // after the overrun.
    static constexpr Loom::Duration quietTime = std::chrono::milliseconds(20);
    static constexpr Loom::Duration maxQuietWait = std::chrono::milliseconds(200);

    static constexpr int defaultReceiveBuffer = 4 << 20;

    struct Listener {
        // interfaces() has changed.
        std::function<void()> onInterfaces;
        // The route of any query of the last lookup may have changed, and any neighbour may have
        // become resolved or unresolved.
        std::function<void()> onForwarding;
        // Somebody else has removed or changed a route, rule or next hop that bears `ownProtocol`.
        // Called as the event is read. Not called after an overrun, which onForwarding follows.
        std::function<void()> onOwnChanged = [] {};
        // A route or a next-hop object of somebody else's has come, changed or gone.
        std::function<void(const Message&)> onRoute = [](const Message&) {};
    };
    struct Counters {
        uint64_t events = 0;
        uint64_t overruns = 0;
        uint64_t refreshes = 0;  // complete dumps, including the one at the start
        uint64_t failedRefreshes = 0;
        uint64_t refusedSolicitations = 0;
    };

    // Raises Vel::Error if the kernel refuses a socket. Events are queued from here on.
    KernelMonitor(Loom::TaskScheduler& scheduler, Listener listener,
                  int receiveBuffer = defaultReceiveBuffer);

    // Dumps links and neighbours and calls both listeners. Raises Vel::Error if they cannot be
    // read.
    void start();

    // The port of the socket that makes the agent's own changes: events that follow from these lead
    // to no round of lookups.
    void ownPortIs(uint32_t port) { ownPort_ = port; }

    int fd() const { return events_.fd(); }
    // Applies queued events, up to a limit. Returns whether none is left and none has been lost, so
    // that the state is the kernel's.
    bool handleReadable();

    const InterfaceView& interfaces() const { return view_; }
    // One result for each query, in their order, valid until the next call. The kernel is asked
    // only for what events may have changed since the last call, and for queries that this did not
    // include.
    std::span<const RouteResult* const> lookup(std::span<const RouteQuery> queries) {
        return answers_.lookup(queries, scheduler_.now());
    }
    // Whether packets can be sent to the neighbour at once: it is resolved, or its link needs no
    // link-layer addresses.
    bool neighbourResolved(const Neighbour& neighbour) const {
        return neighbours_.resolved(neighbour) || links_.needsNoNeighbour(neighbour.ifIndex);
    }
    // Requests the kernel to resolve or confirm neighbours. Skips entries that an operator has set
    // (permanent, noarp), because a request would remove that state. A refusal is counted, and
    // traced the first time.
    void solicit(std::span<const Neighbour> neighbours);
    // Whether no round of lookups and no dump is pending.
    bool settled() const { return !forwardingTimer_.armed() && !overrunAt_; }
    const Counters& counters() const { return counters_; }

  private:
    void handleEvent(const Message& message);
    void handleOwn(const Message& message);
    void handleOverrun();
    void handleForwardingTimer();
    void handleRefreshTimer();
    bool refresh();
    int dump(LinkState& links, NeighbourState& neighbours);
    void publishInterfaces();
    void anythingChanged();
    void forwardingChanged();

    Loom::TaskScheduler& scheduler_;
    Listener listener_;
    NetlinkSocket events_;
    RequestSocket requests_;
    FibLookup fib_{requests_};
    LookupCache answers_{fib_};
    uint32_t ownPort_ = 0;
    LinkState links_;
    NeighbourState neighbours_;
    InterfaceView view_;
    bool linksTouched_ = false;  // links_ may differ from view_
    // The first change since the last round; set while a round is due because of it.
    std::optional<Loom::Instant> firstChange_;
    Loom::Instant lastChange_{};
    Loom::Instant lastRound_{};  // of lookups
    // Set from an overrun to the end of the next dump; events are discarded in between.
    std::optional<Loom::Instant> overrunAt_;
    Loom::Timer forwardingTimer_;
    Loom::Timer refreshTimer_;
    Counters counters_;
};

}  // namespace Agent::Linux

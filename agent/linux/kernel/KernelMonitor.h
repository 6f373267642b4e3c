// The agent's ear at the kernel: interfaces and neighbours kept in step by events, and word that
// routes have to be looked up again.
//
// The owner watches fd() and calls handleReadable() while it is readable; timers run on the
// scheduler it gives. All on the event thread. A listener may use the monitor from its callbacks,
// but not destroy it.
//
// What always holds: interfaces() is what was last announced. Changes are taken in in the kernel's
// order, so that those which cancel out leave what a fresh look at the kernel would show. After an
// overrun nothing is known to be true until the tables have been read again; until then they stay
// as they were, and the old state is what is shown.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "agent/linux/kernel/FibLookup.h"
#include "agent/linux/kernel/LinkTable.h"
#include "agent/linux/kernel/NeighbourTable.h"
#include "agent/linux/kernel/NetlinkSocket.h"
#include "platform/loom/TaskScheduler.h"

namespace Agent::Linux {

class KernelMonitor {
  public:
    // A burst of events leads to one round of lookups: this long after its last event, but not
    // later than `maxHold` after its first.
    static constexpr Loom::Duration settleTime = std::chrono::microseconds(500);
    static constexpr Loom::Duration maxHold = std::chrono::milliseconds(10);
    // After an overrun the tables are read again when the kernel has been quiet for a while, since
    // a dump in the middle of a flood leads to the next overrun; but not later than `maxQuietWait`.
    static constexpr Loom::Duration quietTime = std::chrono::milliseconds(20);
    static constexpr Loom::Duration maxQuietWait = std::chrono::milliseconds(200);

    static constexpr int defaultReceiveBuffer = 4 << 20;

    struct Listener {
        // interfaces() is another value than before.
        std::function<void()> onInterfaces;
        // Any route, and whether any neighbour is resolved, may be another than before.
        std::function<void()> onForwarding;
    };
    struct Counters {
        uint64_t events = 0;
        uint64_t overruns = 0;
        uint64_t refreshes = 0;  // of the tables, the one at the start included
        uint64_t failedRefreshes = 0;
        uint64_t refusedSolicitations = 0;
    };

    // Raises Vel::Error where the kernel gives no sockets. Events are heard from here on.
    KernelMonitor(Loom::TaskScheduler& scheduler, Listener listener,
                  int receiveBuffer = defaultReceiveBuffer);

    // Reads the tables and announces both. Raises Vel::Error if they cannot be read.
    void start();

    int fd() const { return events_.fd(); }
    // Takes in what has come, a bounded amount at a time.
    void handleReadable();

    const InterfaceView& interfaces() const { return view_; }
    std::vector<RouteResult> lookup(std::span<const RouteQuery> queries) {
        return fib_.lookup(queries);
    }
    // Whether packets can leave to the neighbour at once, be it that its link needs no resolution.
    bool neighbourResolved(const Neighbour& neighbour) const {
        return neighbours_.resolved(neighbour) || links_.needsNoNeighbour(neighbour.ifIndex);
    }
    // Has the kernel start to resolve neighbours. That it is refused is counted, and traced the
    // first time.
    void solicit(std::span<const Neighbour> neighbours);
    const Counters& counters() const { return counters_; }

  private:
    void handleEvent(const Message& message);
    void handleOverrun();
    void handleForwardingTimer();
    void handleRefreshTimer();
    bool refresh();
    int readTables(LinkTable& links, NeighbourTable& neighbours);
    void publishInterfaces();
    void forwardingChanged();

    Loom::TaskScheduler& scheduler_;
    Listener listener_;
    NetlinkSocket events_;
    RequestSocket requests_;
    FibLookup fib_{requests_};
    LinkTable links_;
    NeighbourTable neighbours_;
    InterfaceView view_;
    bool linksTouched_ = false;                 // links_ may differ from view_
    std::optional<Loom::Instant> firstChange_;  // of the burst that onForwarding is due for
    std::optional<Loom::Instant> overrunAt_;    // events are discarded until the tables are read
    Loom::Timer forwardingTimer_;
    Loom::Timer refreshTimer_;
    Counters counters_;
};

}  // namespace Agent::Linux

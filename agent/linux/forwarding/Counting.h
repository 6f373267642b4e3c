// Publishes the kernel's packet counts in the table of counters, by load-balance id and path:
// packets and bytes once a second, flows every five seconds.
//
// Counters only grow while an id has the same key. Owned by the platform; on the event thread.
#pragma once

#include <map>

#include "agent/linux/forwarding/Plan.h"
#include "agent/linux/kernel/Netfilter.h"
#include "agent/shell/EventLoop.h"
#include "nav/counters/NavShard.h"

namespace Agent::Linux {

class Counting {
  public:
    static constexpr Loom::Duration interval = std::chrono::seconds(1);
    static constexpr unsigned flowInterval = 5;  // of intervals

    // The loop and the plan must outlive this. Creates the table in the run directory; raises
    // Vel::Error if that fails.
    Counting(const Nav::NavInputs& inputs, Plan& plan, EventLoop& loop, const std::string& runDir);

    // Reads and publishes once. Called by the timer every `interval`.
    void publish();

  private:
    using Entry = NavShard::NavLbProfileCounterEntry;
    struct Carried {
        PacketCount before;  // as last read
        uint32_t pathIndex = 0;
        Nav::LbProfileKey key;
    };

    Entry* entryOf(const TunnelFlow& flow, Carried& carried);
    bool identify(const TunnelFlow& flow, Carried& carried) const;
    void count(const PacketCounts& counts, double seconds);
    void flowsAre(const FlowCount::Counts& counts);
    void followIds();
    void write();

    const Nav::NavInputs in_;
    Plan& plan_;
    RequestSocket netfilter_{NETLINK_NETFILTER};
    FlowCount flows_;
    Vel::Ptr<NavShard::NavCounters> table_;
    std::map<TunnelFlow, Carried> carried_;
    std::map<uint32_t, Entry> entries_;  // by load-balance id
    Loom::Instant last_{};               // of the last reading
    unsigned round_ = 0;
    EventLoop::Registration readable_;
    Loom::Timer timer_;
};

}  // namespace Agent::Linux

// The traffic of a simulated forwarding side: for each load-balance id, packets at a constant rate
// over the member paths of the best priority, in equal shares. Pure arithmetic; time is given.
#pragma once

#include <map>

#include "agent/base/Json.h"
#include "nav/counters/NavShard.h"

namespace Forwarder {

struct Rate {
    double packetsPerSecond = 1000;  // per load-balance id
    Vel::U32 packetBytes = 512;
    Vel::U32 flowsPerPath = 10;
};

class Traffic {
  public:
    explicit Traffic(const Rate& rate) : rate_(rate) {}

    // Takes over which ids there are and which paths carry them, from the agent's load-balance
    // status as JSON. What an id has counted stays while the id stands for the same key.
    void statusIs(const Agent::Json& status);
    // Lets the given number of seconds of traffic pass.
    void advance(double seconds);

    // The entries, by id.
    const std::map<Vel::U32, NavShard::NavLbProfileCounterEntry>& entries() const {
        return entries_;
    }

  private:
    Rate rate_;
    std::map<Vel::U32, NavShard::NavLbProfileCounterEntry> entries_;
    std::map<Vel::U32, std::vector<Vel::U32>> carriers_;  // path indices, by id
    std::map<Vel::U32, double> remainder_;                // packets not whole yet, by id
};

}  // namespace Forwarder

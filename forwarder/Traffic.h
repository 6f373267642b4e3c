// The traffic of a simulated forwarding side: for each load-balance id, packets at a constant rate
// over the paths that carry it, in equal shares. Computation only; the caller gives
// the time.
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

    // Takes the ids from the agent's load-balance status as JSON. The counters of an id are kept
    // while the id belongs to the same key.
    void statusIs(const Agent::Json& status);
    // The paths that carry each id's traffic: arrays of path indices, by the text of the id's key.
    void carriersAre(const Agent::Json& carriers);
    // Adds the traffic of the given number of seconds.
    void advance(double seconds);

    // The entries, by id.
    const std::map<Vel::U32, NavShard::NavLbProfileCounterEntry>& entries() const {
        return entries_;
    }

  private:
    Rate rate_;
    std::map<Vel::U32, NavShard::NavLbProfileCounterEntry> entries_;
    std::map<Nav::LbProfileKey, std::vector<Vel::U32>> carriers_;  // path indices
    std::map<Vel::U32, double> remainder_;  // fraction of a packet carried over, by id
};

}  // namespace Forwarder

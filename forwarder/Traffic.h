// The traffic of a simulated forwarding side: for each load-balance id, packets at a constant rate
// over the member paths of the best priority, in equal shares. Computation only; the caller gives
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

    // Takes the ids and their paths from the agent's load-balance status as JSON. The counters of
    // an id are kept while the id belongs to the same key.
    void statusIs(const Agent::Json& status);
    // Adds the traffic of the given number of seconds.
    void advance(double seconds);

    // The entries, by id.
    const std::map<Vel::U32, NavShard::NavLbProfileCounterEntry>& entries() const {
        return entries_;
    }

  private:
    Rate rate_;
    std::map<Vel::U32, NavShard::NavLbProfileCounterEntry> entries_;
    std::map<Vel::U32, std::vector<Vel::U32>> carriers_;  // path indices, by id
    std::map<Vel::U32, double> remainder_;  // fraction of a packet carried over, by id
};

}  // namespace Forwarder

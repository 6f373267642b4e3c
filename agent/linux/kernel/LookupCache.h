// The answers to route queries, each kept until an event of the kernel may have changed it.
//
// A change of a route concerns the destinations within its prefix only. Those of them that had the
// same FIB entry before it also have the same one after it, unless it is in another table, because
// none of them has a longer match in this table. So one query answers for all of them. Every other
// event may change any answer, since the kernel removes and revives routes without announcing them.
//
// Owned by the monitor, which reports the events. On the event thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

#include "agent/linux/kernel/FibLookup.h"
#include "platform/loom/TaskScheduler.h"

namespace Agent::Linux {

class LookupCache {
  public:
    // The kernel announces some changes before they take effect. An answer that it gives within
    // this time after the event is requested again by the next lookup.
    static constexpr Loom::Duration settleTime = std::chrono::milliseconds(1);

    explicit LookupCache(FibLookup& fib) : fib_(fib) {}

    // The same as FibLookup::lookup(), but asks the kernel only if necessary. Forgets queries that
    // the previous call was given and this one is not. The results are valid until the next call.
    std::vector<const RouteResult*> lookup(std::span<const RouteQuery> queries, Loom::Instant now);

    void routeChanged(const FibEntry& route, Loom::Instant now);
    void anythingChanged(Loom::Instant now);

  private:
    struct Answer {
        RouteResult result;
        bool stale = true;
        Loom::Instant settled{};  // all changes have taken effect by then
        // While stale: the table of all routes that have changed, and the longest of their
        // prefixes; no table if there are several, or something else has changed.
        std::optional<uint32_t> table;
        Netz::IpAddrWithMask prefix;
        uint64_t used = 0;  // the number of the last lookup() that was given the query

        // After `result` has become that of now. A failed query is repeated, and an early answer:
        // then the table and prefix remain.
        void renewed(Loom::Instant now) {
            stale = result.kind == RouteResult::Kind::failed || now < settled;
        }
    };
    struct Hash {
        size_t operator()(const RouteQuery& query) const {
            return Netz::hashMix(Netz::hashMix(query.source.mix(), query.ifIndex),
                                 query.destination.mix());
        }
    };
    using Entry = std::pair<const RouteQuery, Answer>;

    void ask(std::span<Entry* const> entries, Loom::Instant now);

    FibLookup& fib_;
    uint64_t lookups_ = 0;
    std::unordered_map<RouteQuery, Answer, Hash> answers_;
};

}  // namespace Agent::Linux

// The answers to route queries, each kept until an event of the kernel may have changed it.
//
// A change of a route concerns the destinations within its prefix only. Those of them that had the
// same FIB entry before it also have the same one after it, unless it is in another table, because
// none of them has a longer match in this table. So one query answers for all of them, and they
// share its result. Every other event may change any answer, since the kernel removes and revives
// routes without announcing them.
//
// Owned by the monitor, which reports the events. On the event thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
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
    // the previous call was given and this one is not. The results are valid until the next call;
    // queries that share a route may have the same object.
    std::span<const RouteResult* const> lookup(std::span<const RouteQuery> queries,
                                               Loom::Instant now);

    // Returns whether the change may concern an answer.
    bool routeChanged(const FibEntry& route, Loom::Instant now);
    void anythingChanged(Loom::Instant now);

  private:
    struct Answer {
        std::shared_ptr<const RouteResult> result;  // null until the first answer
        bool stale = true;
        // While stale: the table of all routes that have changed, and the longest of their
        // prefixes; no table if there are several, or something else has changed.
        std::optional<uint32_t> table;
        Netz::IpAddrWithMask prefix;
        uint32_t asked = 0;  // during a lookup, the position of the query whose result it may share
        Loom::Instant settled{};  // all changes have taken effect by then

        // A failed query is repeated, and an early answer: then the table and prefix remain.
        void resultIs(std::shared_ptr<const RouteResult> now, Loom::Instant at) {
            result = std::move(now);
            stale = result->kind == RouteResult::Kind::failed || at < settled;
        }
    };

    void queriesAre(std::span<const RouteQuery> queries);
    std::vector<uint32_t> firstOfGroups();
    std::vector<uint32_t> shareResults(Loom::Instant now);
    void ask(std::span<const uint32_t> positions, Loom::Instant now);

    FibLookup& fib_;
    std::vector<RouteQuery> queries_;  // of the last lookup
    std::vector<Answer> answers_;      // of each
    std::vector<const RouteResult*> results_;
};

}  // namespace Agent::Linux

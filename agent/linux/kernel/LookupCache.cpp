#include "agent/linux/kernel/LookupCache.h"

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>

namespace Agent::Linux {

namespace {

using Netz::IpAddrWithMask;
using Netz::IpGenAddr;

// Makes a result that of a query to another destination by the same FIB entry.
void redirect(RouteResult& result, const IpGenAddr& destination) {
    for (RouteVia& via : result.vias)
        if (via.onLink) via.hop = destination;
    std::ranges::sort(result.vias);
}

}  // namespace

void LookupCache::routeChanged(const FibEntry& route, Loom::Instant now) {
    for (auto& [query, answer] : answers_) {
        if (!route.prefix.contains(query.destination)) continue;
        answer.settled = now + settleTime;
        if (!answer.stale) {
            answer.stale = true;
            answer.table = route.table;
            answer.prefix = route.prefix;
            continue;
        }
        if (answer.table != route.table) answer.table.reset();
        if (route.prefix.prefixLength > answer.prefix.prefixLength) answer.prefix = route.prefix;
    }
}

void LookupCache::anythingChanged(Loom::Instant now) {
    for (auto& [query, answer] : answers_) {
        answer.stale = true;
        answer.settled = now + settleTime;
        answer.table.reset();
    }
}

void LookupCache::ask(std::span<Entry* const> entries, Loom::Instant now) {
    std::vector<RouteQuery> queries;
    for (const Entry* entry : entries) queries.push_back(entry->first);
    std::vector<RouteResult> results = fib_.lookup(queries);
    for (size_t i = 0; i < entries.size(); ++i) {
        Answer& answer = entries[i]->second;
        answer.result = std::move(results[i]);
        answer.renewed(now);
    }
}

std::vector<const RouteResult*> LookupCache::lookup(std::span<const RouteQuery> queries,
                                                    Loom::Instant now) {
    // Queries that had one FIB entry, which changes of the same routes of its table may have
    // replaced by another one.
    using Group = std::tuple<IpGenAddr, uint32_t, FibEntry, IpAddrWithMask>;
    std::map<Group, Entry*> groups;
    struct Follower {
        Entry* entry;
        Entry* first;  // of its group
        uint32_t table;
    };
    std::vector<Entry*> entries, asked;
    std::vector<Follower> followers;
    entries.reserve(queries.size());
    ++lookups_;
    for (const RouteQuery& query : queries) {
        Entry& entry = *answers_.try_emplace(query).first;
        Answer& answer = entry.second;
        entries.push_back(&entry);
        if (std::exchange(answer.used, lookups_) == lookups_ || !answer.stale) continue;
        const auto& before = answer.result.entry;
        if (before && answer.table == before->table) {
            const auto [first, isFirst] =
                groups.try_emplace({query.source, query.ifIndex, *before, answer.prefix}, &entry);
            if (!isFirst) {
                followers.push_back({&entry, first->second, before->table});
                continue;
            }
        }
        asked.push_back(&entry);
    }
    if (!asked.empty()) ask(asked, now);
    asked.clear();
    for (const auto& [entry, first, table] : followers) {
        const RouteResult& result = first->second.result;
        // A destination may have routes of its own in the tables after this one, and the first may
        // have one whose event has not been read yet.
        if (!result.entry || result.entry->table != table ||
            !result.entry->prefix.contains(entry->first.destination)) {
            asked.push_back(entry);
            continue;
        }
        entry->second.result = result;
        redirect(entry->second.result, entry->first.destination);
        entry->second.renewed(now);
    }
    if (!asked.empty()) ask(asked, now);

    std::erase_if(answers_, [this](const auto& item) { return item.second.used != lookups_; });
    std::vector<const RouteResult*> results;
    results.reserve(entries.size());
    for (const Entry* entry : entries) results.push_back(&entry->second.result);
    return results;
}

}  // namespace Agent::Linux

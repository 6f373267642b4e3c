#include "agent/linux/kernel/LookupCache.h"

#include <algorithm>
#include <map>
#include <tuple>
#include <unordered_map>
#include <utility>

namespace Agent::Linux {

using Netz::IpAddrWithMask;
using Netz::IpGenAddr;

bool LookupCache::routeChanged(const FibEntry& route, Loom::Instant now) {
    bool concerns = false;
    for (size_t i = 0; i < queries_.size(); ++i) {
        if (!route.prefix.contains(queries_[i].destination)) continue;
        concerns = true;
        Answer& answer = answers_[i];
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
    return concerns;
}

void LookupCache::anythingChanged(Loom::Instant now) {
    for (Answer& answer : answers_) {
        answer.stale = true;
        answer.settled = now + settleTime;
        answer.table.reset();
    }
}

// Keeps the answers to queries that are among the new ones, too.
void LookupCache::queriesAre(std::span<const RouteQuery> queries) {
    const auto hash = [](const RouteQuery& query) {
        return Netz::hashMix(Netz::hashMix(query.source.mix(), query.ifIndex),
                             query.destination.mix());
    };
    std::unordered_map<RouteQuery, size_t, decltype(hash)> positions(queries_.size(), hash);
    for (size_t i = 0; i < queries_.size(); ++i) positions.emplace(queries_[i], i);
    std::vector<Answer> answers(queries.size());
    for (size_t i = 0; i < queries.size(); ++i)
        if (const auto known = positions.find(queries[i]); known != positions.end())
            answers[i] = answers_[known->second];
    queries_.assign(queries.begin(), queries.end());
    answers_ = std::move(answers);
}

// Equal results of consecutive queries become one object.
void LookupCache::ask(std::span<const uint32_t> positions, Loom::Instant now) {
    std::vector<RouteQuery> queries;
    queries.reserve(positions.size());
    for (const uint32_t position : positions) queries.push_back(queries_[position]);
    std::shared_ptr<const RouteResult> last;
    for (size_t i = 0; RouteResult & result : fib_.lookup(queries)) {
        if (!last || *last != result) last = std::make_shared<RouteResult>(std::move(result));
        answers_[positions[i++]].resultIs(last, now);
    }
}

// Prepares a lookup: queries that had one FIB entry, which changes of the same routes of its table
// may have replaced by another one, are a group. Returns what to ask: the first of each group, and
// stale queries without one.
std::vector<uint32_t> LookupCache::firstOfGroups() {
    using Group = std::tuple<IpGenAddr, uint32_t, FibEntry, IpAddrWithMask>;
    std::map<Group, uint32_t> groups;
    auto group = groups.end();
    std::vector<uint32_t> asked;
    for (uint32_t i = 0; i < answers_.size(); ++i) {
        Answer& answer = answers_[i];
        if (!answer.stale) continue;
        answer.asked = i;
        const auto* before =
            answer.result && answer.result->entry ? &*answer.result->entry : nullptr;
        if (before && answer.table == before->table) {
            const auto key =
                std::tie(queries_[i].source, queries_[i].ifIndex, *before, answer.prefix);
            if (group == groups.end() || group->first != key) group = groups.emplace(key, i).first;
            answer.asked = group->second;
        }
        if (answer.asked == i) asked.push_back(i);
    }
    return asked;
}

// Gives the others of each group the result of the first. Returns those that it does not fit: a
// destination may have routes of its own in the tables after this one, and the first may have one
// whose event has not been read yet.
std::vector<uint32_t> LookupCache::shareResults(Loom::Instant now) {
    std::vector<uint32_t> others;
    for (uint32_t i = 0; i < answers_.size(); ++i) {
        Answer& answer = answers_[i];
        if (!answer.stale || answer.asked == i) continue;
        const auto& result = answers_[answer.asked].result;
        if (result->entry && result->entry->table == answer.table &&
            result->entry->prefix.contains(queries_[i].destination))
            answer.resultIs(result, now);
        else
            others.push_back(i);
    }
    return others;
}

std::span<const RouteResult* const> LookupCache::lookup(std::span<const RouteQuery> queries,
                                                        Loom::Instant now) {
    if (!std::ranges::equal(queries, queries_)) queriesAre(queries);
    if (const auto asked = firstOfGroups(); !asked.empty()) ask(asked, now);
    if (const auto asked = shareResults(now); !asked.empty()) ask(asked, now);
    results_.clear();
    for (const Answer& answer : answers_) results_.push_back(answer.result.get());
    return results_;
}

}  // namespace Agent::Linux

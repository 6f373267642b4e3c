#include "navctl/Counters.h"

#include <chrono>
#include <map>

#include "client/ControlClient.h"
#include "nav/counters/NavShard.h"
#include "nav/types/PathName.h"

namespace Navctl {

namespace {

using Clock = std::chrono::steady_clock;
using NavShard::NavLbProfileCounterEntry;
using namespace std::chrono_literals;

struct Reading {
    Clock::time_point time;
    std::map<Vel::U32, NavLbProfileCounterEntry> entries;  // by load-balance id
};

Reading readAll(const NavShard::NavCounters& counters) {
    Reading reading{Clock::now(), {}};
    counters.eachLbProfileCounter(
        [&](const NavLbProfileCounterEntry& entry) { reading.entries[entry.key.lbId] = entry; });
    return reading;
}

// If a counter has decreased, its id has been assigned to another key.
double rate(Vel::U64 before, Vel::U64 now, double seconds) {
    return now < before ? 0.0 : static_cast<double>(now - before) / seconds;
}

Json rounded(double value) {
    return static_cast<Vel::U64>(value + 0.5);
}

// A row for the id, then one for each path that has carried traffic.
void addRows(TextTable& table, const NavLbProfileCounterEntry& before,
             const NavLbProfileCounterEntry& now, double seconds) {
    const auto& key = now.lbKeyInfo;
    auto row = [&](const Json& path, const auto& was, const auto& is) {
        table.rows.push_back({now.key.lbId, key.vtepIp.stringValue(), key.appId, key.vrfId, path,
                              is.outPkts, is.outBytes,
                              rounded(rate(was.outPkts, is.outPkts, seconds)),
                              rounded(8 * rate(was.outBytes, is.outBytes, seconds)), is.flows});
    };
    row("all", before, now);
    for (size_t i = 0; i < now.pathCounter.size(); ++i)
        if (now.pathCounter[i].outPkts > 0)
            row(Nav::pathName(static_cast<Vel::U32>(i)), before.pathCounter[i], now.pathCounter[i]);
}

TextTable compare(const Reading& before, const Reading& now) {
    TextTable table{{"id", "site", "app (id)", "vrf (id)", "path", "packets", "bytes", "packets/s",
                     "bits/s", "flows"},
                    {}};
    const double seconds = std::chrono::duration<double>(now.time - before.time).count();
    for (const auto& [lbId, entry] : now.entries) {
        const auto was = before.entries.find(lbId);
        const bool same = was != before.entries.end() && was->second.lbKeyInfo == entry.lbKeyInfo;
        addRows(table, same ? was->second : entry, entry, seconds);
    }
    return table;
}

// Waits until the table has changed and a second has passed. False if its writer stopped.
bool awaitNews(NavShard::NavCounters& counters, Clock::time_point since) {
    for (;;) {
        if (!counters.lbProfileCounterAwait(10s)) return false;
        const auto state = counters.lbProfileCounterUpdate();
        if (state == Shard::MapState::quiesced || state == Shard::MapState::absent) return false;
        if (Clock::now() - since >= 1s) return true;
    }
}

}  // namespace

void showCounters(const std::string& runDir, bool watch,
                  const std::function<void(const TextTable&)>& show) {
    auto counters = NavShard::navCountersFactory("navCounters");
    try {
        counters->lbProfileCounterControlIs(
            NavShard::LbProfileCounterControl::reader(Shard::Namespace(runDir)));
    } catch (const Vel::Error& error) {
        throw Client::NoAgent(error.what());
    }
    const auto state = counters->lbProfileCounterUpdate();
    if (state == Shard::MapState::absent || state == Shard::MapState::quiesced)
        throw Client::NoAgent("no counters in " + runDir);
    if (state == Shard::MapState::refused)
        throw Client::Refused("the counters of " + runDir +
                              " cannot be read: " + counters->lbProfileCounterRefusal());
    Reading before = readAll(*counters);
    do {
        const bool alive = awaitNews(*counters, before.time);
        Reading now = readAll(*counters);
        show(compare(before, now));
        before = std::move(now);
        if (watch && !alive) throw Client::NoAgent("the writer of the counters has stopped");
    } while (watch);
}

}  // namespace Navctl

#include "agent/linux/forwarding/Counting.h"

#include <utility>

#include "agent/linux/forwarding/Ruleset.h"
#include "agent/linux/kernel/LinuxTrace.h"

namespace Agent::Linux {

namespace {

// What was counted since `before`; the kernel drops a count that rests for long, and begins anew.
PacketCount since(const PacketCount& before, const PacketCount& now) {
    if (now.packets < before.packets) return now;
    return {now.packets - before.packets, now.bytes - before.bytes};
}

// The site that a path leads to; nothing if the configuration has it no more.
std::optional<Netz::IpGenAddr> siteOf(const Nav::NavCliConfig& config, const PathHop& hop) {
    for (const Nav::PathGroupConfig& group : config.pathGroupConfig()) {
        if (!group.localIntfHas(hop.intfId)) continue;
        for (const Nav::RemoteViaConfig& remote : group.remoteViaConfig())
            if (remote.remoteViaHas(hop.path.dstAddr)) return remote.remoteAddr();
    }
    return {};
}

}  // namespace

Counting::Counting(const Nav::NavInputs& inputs, Plan& plan, EventLoop& loop,
                   const std::string& runDir)
    : in_(inputs),
      plan_(plan),
      flows_([this](FlowCount::Counts counts) { flowsAre(counts); }),
      table_(NavShard::navCountersFactory("navCounters")),
      readable_(loop.onReadable(flows_.fd(), [this] { flows_.handleReadable(); })),
      timer_(*inputs.scheduler, Loom::call<&Counting::publish>(*this)) {
    table_->lbProfileCounterControlIs(
        NavShard::LbProfileCounterControl::writer(Shard::Namespace(runDir)));
    table_->lbProfileCounterDelAll();  // of an agent before, whose ids may be others' now
    table_->lbProfileCounterMounted();
    last_ = in_.scheduler->now();
    timer_.armIn(interval);
}

// A path that has gone keeps its last identity, so that what it carried is not lost.
bool Counting::identify(const TunnelFlow& flow, Carried& carried) const {
    const auto application = plan_.applications().find(flow.mark);
    if (application == plan_.applications().end()) return carried.pathIndex != 0;
    for (const auto& [pathIndex, hop] : plan_.paths()) {
        if (hop.path.srcAddr != flow.source || hop.path.dstAddr != flow.destination) continue;
        const auto& [vrf, appId] = application->second;
        const auto segment = plan_.segments().find(vrf);
        const auto site = siteOf(*in_.cliConfig, hop);
        if (segment == plan_.segments().end() || !site) break;
        carried.pathIndex = pathIndex;
        carried.key = {*site, appId, segment->second.vrfId};
        break;
    }
    return carried.pathIndex != 0;
}

// The entry of the load-balance id that a flow belongs to now; null without one.
Counting::Entry* Counting::entryOf(const TunnelFlow& flow, Carried& carried) {
    if (!identify(flow, carried)) return nullptr;
    const Nav::LbProfileStatus* status = in_.navStatusDir->navLbProfileStatus();
    const auto* id = status ? status->lbProfileStatusEntry(carried.key) : nullptr;
    if (!id || id->lbIndex() == 0) return nullptr;
    Entry& entry = entries_[id->lbIndex()];
    if (entry.lbKeyInfo != carried.key) entry = {};
    entry.key.lbId = id->lbIndex();
    entry.lbKeyInfo = carried.key;
    entry.pathCounter[carried.pathIndex].pathId = carried.pathIndex;
    return &entry;
}

void Counting::count(const PacketCounts& counts, double seconds) {
    for (auto& [lbId, entry] : entries_) {
        entry.throughput = 0;
        for (auto& path : entry.pathCounter) path.throughput = 0;
    }
    for (const auto& [flow, now] : counts) {
        Carried& carried = carried_[flow];
        const PacketCount more = since(std::exchange(carried.before, now), now);
        Entry* entry = more.packets != 0 ? entryOf(flow, carried) : nullptr;
        if (!entry) continue;
        auto& path = entry->pathCounter[carried.pathIndex];
        const double bits = double(more.bytes) * 8 / seconds;
        path.outPkts += more.packets, entry->outPkts += more.packets;
        path.outBytes += more.bytes, entry->outBytes += more.bytes;
        path.throughput += bits, entry->throughput += bits;
    }
    std::erase_if(carried_, [&](const auto& item) { return !counts.contains(item.first); });
}

void Counting::flowsAre(const FlowCount::Counts& counts) {
    for (auto& [lbId, entry] : entries_) {
        entry.flows = 0;
        for (auto& path : entry.pathCounter) path.flows = 0;
    }
    for (const auto& [flow, number] : counts) {
        const auto carried = carried_.find(flow);
        Entry* entry = carried != carried_.end() ? entryOf(flow, carried->second) : nullptr;
        if (!entry) continue;
        entry->pathCounter[carried->second.pathIndex].flows += number;
        entry->flows += number;
    }
}

// Every id has an entry, also one that carries nothing; one that was released has none.
void Counting::followIds() {
    const Nav::LbProfileStatus* status = in_.navStatusDir->navLbProfileStatus();
    std::map<uint32_t, Nav::LbProfileKey> ids;
    if (status)
        for (const Nav::LbProfileStatusEntry& id : status->lbProfileStatusEntry())
            if (id.lbIndex() != 0) ids.emplace(id.lbIndex(), id.key());
    for (const auto& [lbId, key] : ids) {
        Entry& entry = entries_[lbId];
        if (entry.lbKeyInfo != key) entry = {};
        entry.key.lbId = lbId;
        entry.lbKeyInfo = key;
    }
    std::erase_if(entries_, [&](const auto& item) {
        if (ids.contains(item.first)) return false;
        table_->lbProfileCounterDel({item.first});
        return true;
    });
}

void Counting::publish() {
    timer_.armIn(interval);
    const auto now = in_.scheduler->now();
    const double seconds = std::chrono::duration<double>(now - std::exchange(last_, now)).count();
    PacketCounts counts;
    followIds();
    if (readCounters(netfilter_, nftTableName, "packets4", false, counts) &&
        readCounters(netfilter_, nftTableName, "packets6", true, counts) && seconds > 0)
        count(counts, seconds);
    if (round_++ % flowInterval == 0)
        flows_.start(plan_.udpPort(), Numbers::first, ~(Numbers::count - 1));
    write();
}

void Counting::write() {
    const auto writeAll = [this] {
        for (const auto& [lbId, entry] : entries_) table_->lbProfileCounterIs(entry);
    };
    writeAll();
    if (table_->lbProfileCounterCommit()) return;
    // Another process broke the table, and a new one has its name.
    writeAll();
    if (table_->lbProfileCounterCommit()) table_->lbProfileCounterMounted();
}

}  // namespace Agent::Linux

#include "forwarder/Traffic.h"

#include <cmath>

namespace Forwarder {

using NavShard::NavLbProfileCounterEntry;
using NavShard::NavPathCounterIndex;
using Vel::U32;
using Vel::U64;

void Traffic::statusIs(const Agent::Json& status) {
    std::map<U32, NavLbProfileCounterEntry> entries;
    for (const auto& [keyText, id] : status.items()) {
        const U32 lbId = id.at("lbIndex");
        if (lbId == 0) continue;  // the entry has been created but has no id yet
        const auto key = Vel::Codec<Nav::LbProfileKey>::fromKey(keyText);
        const auto before = entries_.find(lbId);
        if (before != entries_.end() && before->second.lbKeyInfo == key)
            entries[lbId] = before->second;
        NavLbProfileCounterEntry& entry = entries[lbId];
        entry.key.lbId = lbId;
        entry.lbKeyInfo = key;
    }
    entries_ = std::move(entries);
    std::erase_if(remainder_, [&](const auto& item) { return !entries_.contains(item.first); });
}

void Traffic::carriersAre(const Agent::Json& carriers) {
    carriers_.clear();
    for (const auto& [keyText, paths] : carriers.items())
        carriers_[Vel::Codec<Nav::LbProfileKey>::fromKey(keyText)] = paths.get<std::vector<U32>>();
}

void Traffic::advance(double seconds) {
    for (auto& [lbId, entry] : entries_) {
        const std::vector<U32>& carriers = carriers_[entry.lbKeyInfo];
        for (auto& path : entry.pathCounter) path.throughput = 0, path.flows = 0;
        entry.throughput = 0;
        entry.flows = 0;
        if (carriers.empty()) continue;

        // Whole packets on each path; the remainder is carried over.
        const double each =
            (rate_.packetsPerSecond * seconds + remainder_[lbId]) / double(carriers.size());
        const U64 packets = static_cast<U64>(std::floor(each));
        remainder_[lbId] = (each - double(packets)) * double(carriers.size());
        for (const U32 pathIndex : carriers) {
            auto& path = entry.pathCounter[NavPathCounterIndex(pathIndex).value];
            path.pathId = pathIndex;
            path.outPkts += packets;
            path.outBytes += packets * rate_.packetBytes;
            path.flows = rate_.flowsPerPath;
            path.throughput = rate_.packetsPerSecond * rate_.packetBytes * 8 / carriers.size();
            entry.outPkts += packets;
            entry.outBytes += packets * rate_.packetBytes;
            entry.flows += path.flows;
            entry.throughput += path.throughput;
        }
    }
}

}  // namespace Forwarder

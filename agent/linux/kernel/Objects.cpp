#include "agent/linux/kernel/Objects.h"

namespace Agent::Linux {

namespace {

std::string hex(uint32_t number) {
    char text[11];
    std::snprintf(text, sizeof text, "0x%x", number);
    return text;
}

struct DescribeKey {
    std::string operator()(const Tunnel::Key& key) const {
        return "link " + key.name.stringValue();
    }
    std::string operator()(const Nexthop::Key& key) const { return "nexthop id " + hex(key.id); }
    std::string operator()(const NexthopGroup::Key& key) const {
        return "nexthop group id " + hex(key.id);
    }
    std::string operator()(const Route::Key& key) const {
        return "route " + key.prefix.stringValue() + " table " + hex(key.table);
    }
    std::string operator()(const Rule& rule) const {
        std::string text =
            std::string(rule.v6 ? "-6 " : "") + "rule " + std::to_string(rule.priority);
        if (!rule.source.isZero()) text += " from " + rule.source.stringValue();
        if (rule.mark != 0) text += " fwmark " + hex(rule.mark);
        if (rule.sourcePort != 0) text += " sport " + std::to_string(rule.sourcePort);
        if (rule.destinationPort != 0) text += " dport " + std::to_string(rule.destinationPort);
        return text + " lookup " + hex(rule.table);
    }
};

struct Describe : DescribeKey {
    using DescribeKey::operator();
    std::string operator()(const Tunnel& tunnel) const {
        return (*this)(tunnel.key()) + " vni " + std::to_string(tunnel.vni) + " port " +
               std::to_string(tunnel.udpPort) + " mtu " + std::to_string(tunnel.mtu) + " address " +
               tunnel.address.stringValue();
    }
    std::string operator()(const Nexthop& nexthop) const {
        return (*this)(nexthop.key()) + " vni " + std::to_string(nexthop.vni) + " src " +
               nexthop.source.stringValue() + " dst " + nexthop.destination.stringValue();
    }
    std::string operator()(const NexthopGroup& group) const {
        std::string text = (*this)(group.key()) + " of";
        for (const auto& member : group.members)
            text += ' ' + hex(member.id) + ',' + std::to_string(member.weight);
        return text;
    }
    std::string operator()(const Route& route) const {
        std::string text = (*this)(route.key());
        switch (route.action) {
            case Route::Action::nexthop:
                return text + " nhid " + hex(route.nexthopId);
            case Route::Action::unreachable:
                return text + " unreachable";
            case Route::Action::next:
                return text + " throw";
            case Route::Action::via:
                break;
        }
        if (!route.gateway.isZero()) text += " via " + route.gateway.stringValue();
        return text + " dev " + std::to_string(route.ifIndex);
    }
};

}  // namespace

std::string textOf(const Object& object) {
    return std::visit(Describe{}, object);
}

std::string textOf(const ObjectKey& key) {
    return std::visit(DescribeKey{}, key);
}

}  // namespace Agent::Linux

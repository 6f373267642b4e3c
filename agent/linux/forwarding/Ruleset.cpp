#include "agent/linux/forwarding/Ruleset.h"

#include <algorithm>
#include <set>
#include <sstream>
#include <tuple>

#include "nav/config/NavConstants.h"

namespace Agent::Linux {

namespace {

using Netz::IpGenAddr;

// Whether a mark is one of the agent's.
constexpr const char* ownMark = "& 0xff000000 == 0x6e000000";
constexpr const char* withPorts = "{ tcp, udp, udplite, sctp, dccp }";

using Texts = std::set<std::string>;

// "{ a, b }"; empty without members.
std::string setOf(const Texts& members) {
    std::string text;
    for (const std::string& member : members) text += (text.empty() ? "{ " : ", ") + member;
    return text.empty() ? text : text + " }";
}

// Ranges that do not overlap, as nftables requires of a set.
template <class Range>
Texts ports(const Range& range) {
    std::vector<PortRange> apart;
    std::set<PortRange> ranges;
    for (const PortRange& each : range) ranges.insert(each);
    for (const PortRange& each : ranges)
        if (!apart.empty() && each.first <= apart.back().last)
            apart.back().last = std::max(apart.back().last, each.last);
        else
            apart.push_back(each);
    Texts texts;
    for (const PortRange& each : apart) texts.insert(each.stringValue());
    return texts;
}

// Those of a family, without the ones that lie in another.
template <class Range>
Texts prefixes(const Range& range, bool v6) {
    const auto lies = [&](const IpPrefix& prefix) {
        for (const IpPrefix& other : range)
            if (other != prefix && other.addr.isV6() == v6 &&
                other.prefixLength <= prefix.prefixLength &&
                IpPrefix::of(prefix.addr, other.prefixLength) == other)
                return true;
        return false;
    };
    Texts texts;
    for (const IpPrefix& prefix : range)
        if (prefix.addr.isV6() == v6 && !lies(prefix)) texts.insert(prefix.stringValue());
    return texts;
}

// Matches the addresses of a packet, in a set of pairs.
std::string pairOf(bool v6) {
    return v6 ? "ip6 saddr . ip6 daddr " : "ip saddr . ip daddr ";
}

// An asterisk at the end of a name would stand for any text.
std::string quoted(std::string_view name) {
    const bool asterisk = name.ends_with('*');
    if (asterisk) name.remove_suffix(1);
    return '"' + std::string(name) + (asterisk ? "\\*\"" : "\"");
}

// Everything that is the same for both families.
std::string transport(const ApplicationMatchConfig& match) {
    std::string text;
    const std::string sources = setOf(ports(match.sourcePort())),
                      destinations = setOf(ports(match.destinationPort()));
    if (match.protocol().number)
        text += " meta l4proto " + std::to_string(*match.protocol().number);
    else if (!sources.empty() || !destinations.empty())
        text += std::string(" meta l4proto ") + withPorts;
    if (!sources.empty()) text += " th sport " + sources;
    if (!destinations.empty()) text += " th dport " + destinations;
    return text;
}

}  // namespace

std::vector<std::string> expressionsOf(const ApplicationMatchConfig& match) {
    const std::string rest = transport(match);
    const auto given = [](const auto& range) { return range.begin() != range.end(); };
    Texts dscps;
    for (const Dscp& dscp : match.dscp()) dscps.insert(std::to_string(dscp.value));
    const bool bySource = given(match.sourcePrefix()),
               byDestination = given(match.destinationPrefix());
    if (!bySource && !byDestination && dscps.empty()) return {rest};
    std::vector<std::string> expressions;
    for (const bool v6 : {false, true}) {
        const std::string ip = v6 ? " ip6" : " ip";
        const auto sources = prefixes(match.sourcePrefix(), v6),
                   destinations = prefixes(match.destinationPrefix(), v6);
        if ((bySource && sources.empty()) || (byDestination && destinations.empty())) continue;
        std::string text;
        if (bySource) text += ip + " saddr " + setOf(sources);
        if (byDestination) text += ip + " daddr " + setOf(destinations);
        if (!dscps.empty()) text += ip + " dscp " + setOf(dscps);
        expressions.push_back(text + rest);
    }
    return expressions;
}

std::vector<ApplicationMark> applicationsOf(const Nav::NavInputs& in,
                                            const ForwardingConfig& config, const Segment& segment,
                                            Plan& plan) {
    const auto* applied = in.navFeaturePolicyDir->appliedPolicy(Classification::vrfTarget);
    const Vel::String* name = applied ? applied->policyForTarget(segment.vrf) : nullptr;
    const auto* policy = name ? in.navFeaturePolicyDir->featurePolicy(*name) : nullptr;
    std::vector<ApplicationMark> applications;
    for (const Nav::NavRuleEntry& rule : plan.policy(segment.vrf).rules) {
        const Vel::String* profile = policy ? policy->appProfilePriority(rule.ruleKey) : nullptr;
        const ApplicationConfig* application = profile ? config.application(*profile) : nullptr;
        const bool all = rule.ruleKey == Nav::NavConstants::defaultRuleKey;
        if (application || all)
            applications.push_back(
                {all ? nullptr : application, plan.markOf(segment.vrf, rule.appProfileId)});
    }
    return applications;
}

namespace {

class Writer {
  public:
    Writer(const Nav::NavInputs& in, const ForwardingConfig& config, const InterfaceView& view,
           Plan& plan, const std::string& table)
        : in_(in), config_(config), view_(view), plan_(plan), table_(table) {}

    std::string text() {
        for (const auto& [name, addr] :
             {std::pair("packets4", "ipv4_addr"), std::pair("packets6", "ipv6_addr")})
            out_ << "add set " << table_ << " " << name << " { type mark . " << addr << " . "
                 << addr << "; size 65535; flags dynamic, timeout; timeout 1h; counter; }\n";
        port_ = "udp dport " + std::to_string(plan_.udpPort());
        for (const auto& [vrf, segment] : plan_.segments())
            tunnels_.insert(quoted(segment.tunnel.name.str()));
        zones();
        classification();
        segments();
        protection();
        counting();
        return out_.str();
    }

  private:
    void chain(const std::string& name, const std::string& hook) {
        out_ << "add chain " << table_ << " " << name << " { type " << hook
             << "; policy accept; }\n";
    }
    void rule(const std::string& chain, const std::string& text) {
        out_ << "add rule " << table_ << " " << chain << " " << text << "\n";
    }

    // The interfaces that packets of a VRF come from, its tunnel included.
    Texts interfacesOf(const Segment& segment) const {
        Texts names;
        for (const Interface& interface : view_.interfaces)
            if (interface.vrf.index == segment.index) names.insert(quoted(interface.name.str()));
        return names;
    }

    // Flows of VRFs with the same addresses are told apart.
    void zones() {
        Texts zones;
        for (const auto& [vrf, segment] : plan_.segments())
            if (segment.index != 0)
                for (const std::string& name : interfacesOf(segment))
                    zones.insert(name + " : " + std::to_string(segment.vrfId & 0xffff));
        if (zones.empty()) return;
        chain("zones", "filter hook prerouting priority raw");
        rule("zones", "ct zone set iifname map " + setOf(zones));
        chain("zones_out", "filter hook output priority raw");
        rule("zones_out", "ct zone set oifname map " + setOf(zones));
    }

    void classify(const std::string& chain, const std::string& interfaces, const Segment& segment) {
        const auto applications = applicationsOf(in_, config_, segment, plan_);
        if (interfaces.empty()) return;
        std::ostringstream rules;
        for (const auto& [application, mark] : applications) {
            const std::string verdict =
                " meta mark set " + std::to_string(mark) + " ct mark set meta mark accept; ";
            if (!application) rules << verdict;
            if (application)
                for (const ApplicationMatchConfig& match : application->match())
                    for (const std::string& expression : expressionsOf(match))
                        rules << expression << verdict;
        }
        rule(chain, interfaces + " jump { " + rules.str() + " }");
    }

    void classification() {
        // Most packets are of known flows, so they come first.
        chain("classify", "filter hook prerouting priority mangle");
        rule("classify", std::string("ct mark ") + ownMark + " meta mark set ct mark accept");
        rule("classify", port_ + " fib daddr type local accept");
        // What arrives in a tunnel bears no mark of the outer packet.
        rule("classify", std::string("meta mark ") + ownMark + " meta mark set 0");
        // The router's own packets that the VRF's table leads into a tunnel. A tunnel's own packets
        // have the mark of the packet inside.
        chain("classify_out", "route hook output priority mangle");
        rule("classify_out", std::string("meta mark ") + ownMark + " accept");
        if (!tunnels_.empty())
            rule("classify_out", "oifname " + setOf(tunnels_) + " ct mark " + ownMark +
                                     " meta mark set ct mark accept");
        for (const auto& [vrf, segment] : plan_.segments()) {
            classify("classify", "iifname " + setOf(interfacesOf(segment)), segment);
            classify("classify_out", "oifname " + quoted(segment.tunnel.name.str()), segment);
        }
    }

    void segments() {
        chain("segments", "filter hook forward priority mangle");
        if (!tunnels_.empty())
            rule("segments",
                 "tcp flags syn oifname " + setOf(tunnels_) + " tcp option maxseg size set rt mtu");
    }

    // Protected is what the kernel has decrypted or is to encrypt, and what charon does. It is
    // accepted from any interface, because nobody but the peer can have sent it. Each pair of
    // addresses is in one set for all ports, since large sets take nftables long.
    void secured(const Texts (&in)[2], const Texts (&out)[2]) {
        const std::string device = quoted(ipsecDevice), probe = std::to_string(probePort);
        for (const std::string direction : {"in", "out"}) {
            out_ << "add chain " << table_ << " secured_" << direction << "\n";
            for (const auto& port : {port_, "udp dport " + probe, "udp sport " + probe})
                rule("tunnels_" + direction, port + " jump secured_" + direction);
        }
        out_ << "add chain " << table_ << " protected\n";
        rule("protected", "meta secpath missing iifname != " + device + " counter drop");
        rule("protected", "accept");
        for (const bool v6 : {false, true}) {
            if (in[v6].empty()) continue;
            rule("secured_in", pairOf(v6) + setOf(in[v6]) + " jump protected");
            rule("secured_out", pairOf(v6) + setOf(out[v6]) +
                                    " rt ipsec missing oifname != " + device + " counter drop");
        }
    }

    void protection() {
        chain("tunnels_in", "filter hook input priority filter");
        chain("tunnels_out", "filter hook postrouting priority mangle");
        Texts peers[2], securedIn[2], securedOut[2];
        const auto allow = [&](const IpGenAddr& source, const IpGenAddr& destination,
                               const Interface& interface, bool protect) {
            const bool v6 = source.isV6();
            const std::string out = source.stringValue() + " . " + destination.stringValue();
            const std::string in = destination.stringValue() + " . " + source.stringValue();
            if (protect) {
                securedIn[v6].insert(in);
                securedOut[v6].insert(out);
                return;
            }
            // What is received in a VRF is delivered with the VRF's device as its input interface.
            peers[v6].insert(
                in + " . " +
                quoted(interface.vrf.index == 0 ? interface.name.str() : interface.vrf.name.str()));
        };
        for (const Nav::PathConfig& vrf : in_.pathConfigDir->pathConfig())
            for (const Nav::PathConfigEntry& path : vrf.pathConfigEntry()) {
                const auto& [source, destination, vrfId] = path.key();
                if (destination.isV6() != source.isV6()) continue;
                for (const Interface& interface : view_.interfaces)
                    if (interface.primary4.addr == source || interface.primary6.addr == source)
                        allow(source, destination, interface, !path.ipsecProfile().empty());
            }
        // When a link returns, its first packet may come before the agent knows of it.
        for (const Nav::PathGroupConfig& group : in_.cliConfig->pathGroupConfig())
            for (const Interface& interface : view_.interfaces) {
                if (interface.up || !group.localIntfHas(interface.name)) continue;
                for (const Nav::RemoteViaConfig& remote : group.remoteViaConfig())
                    for (const IpGenAddr& destination : remote.remoteVia()) {
                        const auto& source =
                            (destination.isV6() ? interface.address6 : interface.address4).addr;
                        if (!source.isZero())
                            allow(source, destination, interface, !group.ipsecProfile().empty());
                    }
            }
        if (!securedIn[0].empty() || !securedIn[1].empty()) secured(securedIn, securedOut);
        for (const bool v6 : {false, true})
            if (!peers[v6].empty())
                rule("tunnels_in",
                     port_ + " " + pairOf(v6) + ". iifname " + setOf(peers[v6]) + " accept");
        if (!plan_.segments().empty()) rule("tunnels_in", port_ + " counter drop");
    }

    void counting() {
        for (const auto& [family, set, ip] :
             {std::tuple("ipv4", "packets4", "ip"), std::tuple("ipv6", "packets6", "ip6")})
            rule("tunnels_out", std::string("meta nfproto ") + family + " " + port_ +
                                    " meta mark " + ownMark + " ct mark set meta mark update @" +
                                    set + " { meta mark . " + ip + " saddr . " + ip + " daddr }");
    }

    const Nav::NavInputs& in_;
    const ForwardingConfig& config_;
    const InterfaceView& view_;
    Plan& plan_;
    const std::string& table_;
    std::string port_;  // matches the tunnels' packets
    Texts tunnels_;     // the names of the tunnel devices
    std::ostringstream out_;
};

}  // namespace

std::string rulesetOf(const Nav::NavInputs& inputs, const ForwardingConfig& config,
                      const InterfaceView& view, Plan& plan) {
    const std::string table = nftTable;
    return "add table " + table + "\nflush table " + table + "\n" +
           rulesOf(inputs, config, view, plan, table);
}

std::string rulesOf(const Nav::NavInputs& inputs, const ForwardingConfig& config,
                    const InterfaceView& view, Plan& plan, const std::string& table) {
    return Writer(inputs, config, view, plan, table).text();
}

}  // namespace Agent::Linux

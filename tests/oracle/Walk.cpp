#include "tests/oracle/Walk.h"

namespace Oracle {

using Vel::Codec;
using Vel::Datum;
using Vel::String;
using Vel::U64;

namespace {

// What may stand in the place of a name in angle brackets.
const std::map<std::string, std::string_view> words{
    {"aGroup", "/cliConfig/pathGroupConfig[<group>]"},
    {"aSite", "<aGroup>/remoteViaConfig[<site>]"},
    {"aPolicy", "/cliConfig/policyConfig[<policy>]"},
    {"aRule", "<aPolicy>/appProfilePolicyRuleList[<rule>]"},
    {"aProfile", "/cliConfig/loadBalanceProfile[<profile>]"},
    {"anIntf", "/ipStatusDir/ipIntfStatus[<intf>]"},
    {"anIntf6", "/ip6StatusDir/ipIntfStatus[<intf>]"},
    {"aConnection", "/ipsecPathStatusDir/ipsecPathStatus[<connection>]"},
    {"inHardware", "/hwPathStatus/hwPathStatusList"},
    {"group", "g1|g2|g3"},
    {"intf", "et1|et2|et3|et4"},
    {"address", "203.0.113.1/24|203.0.113.2/24|203.0.113.3/24|203.0.113.3/25|2001:db8::1/64"},
    {"site", "10.255.0.1|10.255.0.2|10.255.0.3"},
    {"destination", "192.0.2.1|192.0.2.2|192.0.2.3|2001:db8:f::1"},
    {"vrf", "default|default|blue|red"},
    {"vrfId", "0|10|11|12|13"},
    {"policy", "p1|p2"},
    {"rule", "10|20|30"},
    {"profile", "gold|silver|bronze"},
    {"constraint", "latency|jitter|lossRate"},
    {"fec", "1|2|3"},
    {"index", "hwPathIndex|hwArpIndex"},
};

// How often a place is set, and to what: one of the values between bars, where "-" deletes it.
constexpr struct {
    size_t weight;
    const char* path;
    const char* values;
} kinds[] = {
    {6, "<aGroup>", "-"},
    {28, "<aSite>", "{}|-"},
    {33, "<aGroup>/ipsecProfile", "|psk|cert"},
    {50, "<aGroup>/localIntf[<intf>]", "true|true|true|-"},
    {83, "<aSite>/remoteVia[<destination>]", "true|true|true|-"},
    {10, "<anIntf>", "-"},
    {20, "<anIntf>/vrfName", "<vrf>"},
    {60, "<anIntf>/activeAddrWithMask", "<address>|<address>|<address>|<address>|0.0.0.0/0"},
    {3, "<anIntf6>", "-"},
    {2, "<anIntf6>/vrfName", "<vrf>"},
    {5, "<anIntf6>/activeAddrWithMask", "2001:db8::1/64|2001:db8::2/64"},
    {6, "/routingHwRouteStatus/vrfStatus[<vrf>]", "-"},
    {24, "/routingHwRouteStatus/vrfStatus[<vrf>]/vrfId", "<vrfId>"},
    {5, "/cliConfig/vrfConfig[<vrf>]", "-"},
    {25, "/cliConfig/vrfConfig[<vrf>]/policyName", "p1|p1|p2|p2|none|"},
    {3, "<aPolicy>", "-"},
    {7, "<aRule>", "-"},
    {20, "<aRule>/appProfileId", "0|1|1|2|2|3"},
    {10, "<aRule>/appProfileName", "voice|video|bulk"},
    {30, "<aRule>/lbGrpName", "gold|silver|bronze|none|"},
    {10, "<aPolicy>/defaultRuleCfgd", "true|true|false"},
    {10, "<aPolicy>/defaultLbGrpName", "gold|bronze|"},
    {50, "<aPolicy>/configVersion", "<version>"},
    {5, "<aProfile>", "-"},
    {24, "<aProfile>/<constraint>", "1|20|300"},
    {71, "<aProfile>/pathGroupPriority[<group>]", "1|2|3|-"},
    {12, "/nexthopStatus/vrf[<vrf>]", "{}|{}|-"},
    {69, "/nexthopStatus/vrf[<vrf>]/nexthop[<destination>]", "result|result|result|-"},
    {52, "/forwardingStatus/fec[<fec>]", "vias|vias|vias|-"},
    {17, "/forwarding6Status/fec[<fec>]", "vias|vias|vias|-"},
    {17, "<aConnection>", "-"},
    {56, "<aConnection>/connectionState", "0|1|2|3|3|3|3|4|5"},
    {27, "<aConnection>/encapId", "7|8|4294967294"},
    {19, "<inHardware>[<path>]", "-"},
    {115, "<inHardware>[<path>]/<index>", "0|1|1|1|2"},
    {15, "<inHardware>[203.0.113.1,<destination>,0,<fec>]/<index>", "0|1|1|1|2"},
};

// The keys of the paths that are configured, and of one that may not be, of their connections or of
// their place in hardware.
std::string pathsOf(const World& world, bool connections) {
    std::string all = connections ? "203.0.113.1,192.0.2.1,default" : "203.0.113.1,192.0.2.1,0,1";
    for (const auto& vrf : world.in.pathConfigDir->pathConfig())
        for (const auto& path : vrf.pathConfigEntry()) {
            const auto& [src, dst, vrfId] = path.key();
            all += "|" + (connections
                              ? Codec<Ipsec::ConnectionKey>::key({src, dst, vrf.vrfName()})
                              : Codec<Nav::HwPathKey>::key({src, dst, vrfId, path.pathIndex()}));
        }
    return all;
}

}  // namespace

std::string Walk::oneOf(std::string_view texts) {
    for (size_t n = below(1 + static_cast<size_t>(std::ranges::count(texts, '|'))); n > 0; --n)
        texts.remove_prefix(texts.find('|') + 1);
    return std::string(texts.substr(0, texts.find('|')));
}

// VRFs exchange ids, but no two have one at a time.
std::string Walk::filled(std::string text, const World& world) {
    for (size_t open; (open = text.find('<')) != text.npos;) {
        const size_t close = text.find('>');
        const std::string name = text.substr(open + 1, close - open - 1);
        std::string word = name == "version" ? std::to_string(++version_)
                           : name == "path" || name == "connection"
                               ? oneOf(pathsOf(world, name != "path"))
                               : oneOf(words.at(name));
        for (const auto& vrf : world.in.routingHwRouteStatus->vrfStatus())
            if (name == "vrfId" && std::to_string(vrf.vrfId()) == word) word = "0";
        text.replace(open, close + 1 - open, word);
    }
    return text;
}

Datum Walk::valueOf(const std::string& text) {
    if (text == "true" || text == "false") return {text == "true"};
    if (text == "{}") return {Datum::Members{}};
    if (text == "result") return {Datum::Members{{"fecId", {U64{1 + below(4)}}}}};
    if (text == "vias") {
        Datum::List vias;
        for (size_t n = below(4); n > 0; --n)
            vias.push_back({Datum::Members{{"hop", {String(oneOf("203.0.113.254|203.0.113.253"))}},
                                           {"intfId", {String(oneOf(words.at("intf")))}}}});
        return {std::move(vias)};
    }
    if (!text.empty() && text.find_first_not_of("0123456789") == text.npos)
        return {U64{std::stoul(text)}};
    return {String(text)};
}

Event Walk::next(const World& world) {
    const bool configured = world.in.cliConfig->navConfigured();
    if (oneIn(configured ? 300 : 10)) return set("/cliConfig/navConfigured", {!configured});
    size_t total = 0;
    for (const auto& kind : kinds) total += kind.weight;
    const auto* kind = kinds;
    for (size_t left = below(total); left >= kind->weight; ++kind) left -= kind->weight;
    Event event = del(filled(kind->path, world));
    if (const std::string value = filled(oneOf(kind->values), world); value != "-")
        event = set(event.path, valueOf(value));
    event.run = !oneIn(4);
    if (!configured || !oneIn(500)) return event;
    if (event.op == Event::Op::del || oneIn(2)) event.path = "";
    event.op = Event::Op::restart;
    return event;
}

}  // namespace Oracle

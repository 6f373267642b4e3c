#include "navctl/Reference.h"

#include <map>
#include <optional>
#include <stdexcept>

#include "agent/model/Config.h"
#include "agent/model/DatumJson.h"
#include "agent/model/IpsecConfig.h"

namespace Navctl {

using Vel::Attribute;
using Vel::Entity;

namespace {

struct Text {
    const char* value;    // what may be written, with unit and range
    const char* meaning;  // a sentence or two
};

// By path, with the name of its key attribute in place of a key. docs/reference.md explains what an
// absent file, entry or attribute is; tests/operations_test.py tries the ranges.
const std::map<std::string, Text> texts = {
    {"/cliConfig/navConfigured", {"true, false", "whether path selection is switched on"}},
    {"/cliConfig/udpPortConfig", {"UDP port, 0 to 65535", "port of the tunnels"}},
    {"/cliConfig/pathGroupConfig[name]",
     {"name", "interfaces of one provider, and the sites that are reached over it"}},
    {"/cliConfig/pathGroupConfig[name]/localIntf",
     {"set of interface names", "WAN interfaces; an interface belongs to one path group"}},
    {"/cliConfig/pathGroupConfig[name]/remoteViaConfig[remoteAddr]",
     {"address", "a site, by the address of its router in the overlay"}},
    {"/cliConfig/pathGroupConfig[name]/remoteViaConfig[remoteAddr]/remoteVia",
     {"set of addresses",
      "the site's addresses at the provider: each interface has a path to each; in a path group, "
      "an "
      "address belongs to one site. At most 128 paths in all"}},
    {"/cliConfig/pathGroupConfig[name]/ipsecProfile",
     {"name of an IPsec profile", "how the paths are secured; empty: not at all"}},
    {"/cliConfig/policyConfig[name]", {"name", "which applications go which way, for VRFs"}},
    {"/cliConfig/policyConfig[name]/appProfilePolicyRuleList[ruleKey]",
     {"number, 0 to 4294967293", "a rule; the lowest number that matches decides"}},
    {"/cliConfig/policyConfig[name]/appProfilePolicyRuleList[ruleKey]/appProfileId",
     {"number, 0 to 4294967295",
      "the application's number in tables, one for each application of a VRF; not 0, which is that "
      "of "
      "the default rule"}},
    {"/cliConfig/policyConfig[name]/appProfilePolicyRuleList[ruleKey]/appProfileName",
     {"name of an application", "its packets are described in the configuration of forwarding"}},
    {"/cliConfig/policyConfig[name]/appProfilePolicyRuleList[ruleKey]/lbGrpName",
     {"name of a load-balance profile", "the paths that its traffic uses"}},
    {"/cliConfig/policyConfig[name]/defaultRuleCfgd",
     {"true, false", "whether there is a rule for all other packets"}},
    {"/cliConfig/policyConfig[name]/defaultLbGrpName",
     {"name of a load-balance profile", "the paths that traffic of the default rule uses"}},
    {"/cliConfig/policyConfig[name]/configVersion",
     {"number, 0 to 4294967295",
      "tells path selection that the policy is complete; raised automatically by each change"}},
    {"/cliConfig/loadBalanceProfile[profileName]",
     {"name", "the path groups that an application may use, and what it demands of their paths"}},
    {"/cliConfig/loadBalanceProfile[profileName]/pathGroupPriority",
     {"priority by path group, 0 to 4294967295",
      "the lowest number with a usable path carries the traffic; equal ones share it"}},
    {"/cliConfig/loadBalanceProfile[profileName]/latency",
     {"ms, 0 to 4294967295", "longest mean round trip; 4294967295: no limit"}},
    {"/cliConfig/loadBalanceProfile[profileName]/jitter",
     {"ms, 0 to 4294967295", "greatest jitter; 4294967295: no limit"}},
    {"/cliConfig/loadBalanceProfile[profileName]/lossRate",
     {"percent, 0 to 100", "greatest loss, of the worse direction; 0: no limit"}},
    {"/cliConfig/vrfConfig[vrfName]", {"name, up to 100 bytes", "a VRF that uses the overlay"}},
    {"/cliConfig/vrfConfig[vrfName]/policyName", {"name of a policy", "the VRF's policy"}},

    {"/forwardingConfig/vrf[vrfName]", {"name, up to 100 bytes", "a VRF with a segment"}},
    {"/forwardingConfig/vrf[vrfName]/vni",
     {"VNI, 1 to 16777215", "required: the segment, the same at all sites, unique among VRFs"}},
    {"/forwardingConfig/vrf[vrfName]/address",
     {"address and prefix length",
      "required: the router's overlay address, such as 10.255.0.1/24"}},
    {"/forwardingConfig/vrf[vrfName]/mtu",
     {"bytes, 576 to 65535, or 0",
      "MTU of the tunnel device, at least 1280 if the VRF carries IPv6; 0: derived from the "
      "paths"}},
    {"/forwardingConfig/site[routerAddr]",
     {"address", "a site, by its router's address in the path groups"}},
    {"/forwardingConfig/site[routerAddr]/vrf[vrfName]",
     {"name", "a VRF of the site; it has a segment"}},
    {"/forwardingConfig/site[routerAddr]/vrf[vrfName]/prefix",
     {"set of prefixes", "networks behind the site; one prefix belongs to one site of a VRF"}},
    {"/forwardingConfig/site[routerAddr]/vrf[vrfName]/address",
     {"address", "of the site's router inside the VRF; 0.0.0.0: the site's address"}},
    {"/forwardingConfig/application[name]",
     {"name", "an application that policies name: the packets that fit one of its matches"}},
    {"/forwardingConfig/application[name]/match[number]",
     {"number, 0 to 4294967295", "packets that fit every attribute that is given"}},
    {"/forwardingConfig/application[name]/match[number]/protocol",
     {"name, number, any", "IP protocol, such as tcp, udp, icmp or 89"}},
    {"/forwardingConfig/application[name]/match[number]/sourcePort",
     {"set of ports and ranges",
      "such as 5060 or 5060-5061; of tcp, udp, sctp, dccp, udplite or any"}},
    {"/forwardingConfig/application[name]/match[number]/destinationPort",
     {"set of ports and ranges", "likewise"}},
    {"/forwardingConfig/application[name]/match[number]/sourcePrefix",
     {"set of prefixes", "one of them contains the source address"}},
    {"/forwardingConfig/application[name]/match[number]/destinationPrefix",
     {"set of prefixes", "one of them contains the destination address"}},
    {"/forwardingConfig/application[name]/match[number]/dscp",
     {"set of DSCPs", "ef, af11 to af43, cs0 to cs7, or a number up to 63"}},
    {"/forwardingConfig/probe/interval",
     {"ms, 10 to 60000, or 0", "time between two probes of a path; 0: paths are not probed"}},
    {"/forwardingConfig/probe/multiplier",
     {"count, 1 to 100", "consecutive lost probes after which a path is dead"}},
    {"/forwardingConfig/probe/window",
     {"ms, 100 to 3600000", "period over which quality is measured, at least the interval"}},
    {"/forwardingConfig/probe/upDelay",
     {"ms, 0 to 3600000", "how long a path must meet its limits before it is used again"}},
    {"/forwardingConfig/probe/downDelay",
     {"ms, 0 to 3600000", "how long a path must exceed its limits before its traffic moves"}},
    {"/forwardingConfig/probe/key",
     {"secret", "authenticates the probes; empty: they are not authenticated"}},
    {"/forwardingConfig/probe/dscp", {"DSCP, 0 to 63", "of the probes; also by name, such as cs6"}},
    {"/forwardingConfig/probe/answerStrangers",
     {"true, false", "answer the probes of any sender, not only of the ends of paths"}},
    {"/forwardingConfig/probe/group[name]",
     {"name of a path group", "other values for its paths; an absent one is that of `probe`"}},
    {"/forwardingConfig/probe/group[name]/interval", {"ms, 10 to 60000, or 0", "see `probe`"}},
    {"/forwardingConfig/probe/group[name]/multiplier", {"count, 1 to 100", "see `probe`"}},
    {"/forwardingConfig/probe/group[name]/window", {"ms, 100 to 3600000", "see `probe`"}},
    {"/forwardingConfig/probe/group[name]/upDelay", {"ms, 0 to 3600000", "see `probe`"}},
    {"/forwardingConfig/probe/group[name]/downDelay", {"ms, 0 to 3600000", "see `probe`"}},
    {"/forwardingConfig/probe/group[name]/key", {"secret", "see `probe`"}},
    {"/forwardingConfig/probe/group[name]/dscp", {"DSCP, 0 to 63", "see `probe`"}},

    {"/ipsecConfig/profile[name]",
     {"name", "an IPsec profile that path groups name; it has a key or certificates"}},
    {"/ipsecConfig/profile[name]/proposals",
     {"proposals, separated by commas", "algorithms of IKE in strongSwan's notation"}},
    {"/ipsecConfig/profile[name]/espProposals",
     {"proposals, separated by commas", "algorithms of ESP"}},
    {"/ipsecConfig/profile[name]/localId",
     {"identity", "the router's; empty: the path's source address"}},
    {"/ipsecConfig/profile[name]/remoteId",
     {"identity, %any", "the peer's; empty: the path's destination address"}},
    {"/ipsecConfig/profile[name]/presharedKey",
     {"secret", "key that both sides have, instead of certificates"}},
    {"/ipsecConfig/profile[name]/certificate", {"file in PEM", "the router's certificate"}},
    {"/ipsecConfig/profile[name]/privateKey", {"file in PEM, mode 0600", "its private key"}},
    {"/ipsecConfig/profile[name]/authority",
     {"set of files in PEM", "authorities whose certificates the peer may have"}},
    {"/ipsecConfig/profile[name]/rekeyTime", {"s, 10 to 86400", "until the IKE_SA is rekeyed"}},
    {"/ipsecConfig/profile[name]/espRekeyTime",
     {"s, 10 to 86400", "until the CHILD_SA is rekeyed"}},
    {"/ipsecConfig/profile[name]/dpdDelay",
     {"s, 1 to 3600", "silence until the peer is asked whether it is there"}},
    {"/ipsecConfig/profile[name]/dpdTimeout",
     {"s, 1 to 3600", "until a peer that does not answer is gone"}},
    {"/ipsecConfig/profile[name]/encapsulateAlways",
     {"true, false", "ESP in UDP also without a NAT on the way"}},
};

// Any key of an attribute: names and numbers can be "1", addresses cannot.
std::string sampleKey(const Attribute& attribute) {
    try {
        return attribute.normalKey("1");
    } catch (const Vel::Error&) {
        return attribute.normalKey("10.0.0.1");
    }
}

std::string keyName(const Vel::TypeDescriptor& type) {
    for (size_t i = 0; i < type.count; ++i)
        if (type.attributes[i].kind == Attribute::Kind::key)
            return std::string(type.attributes[i].name);
    throw std::logic_error(std::string(type.name) + " has no key");
}

class Page {
  public:
    // The tables of one root, whose entity has all defaults.
    void add(const char* name, const char* heading, Entity& entity) {
        text_ += std::string("\n## ") + heading +
                 "\n\n| attribute | value | default | meaning |\n" + "| --- | --- | --- | --- |\n";
        root_ = std::string("/") + name;
        addEntity(entity, root_);
    }
    std::string finish() {
        if (rows_ != texts.size())
            throw std::logic_error("the reference has rows without an attribute");
        return std::move(text_);
    }

  private:
    void addEntity(Entity& entity, const std::string& path) {
        const Vel::TypeDescriptor& type = entity.type();
        for (size_t i = 0; i < type.count; ++i) {
            const Attribute& a = type.attributes[i];
            const std::string here = path + "/" + std::string(a.name);
            if (a.kind == Attribute::Kind::key) continue;
            if (a.kind == Attribute::Kind::child)
                addEntity(*a.find(entity, {}), here);
            else if (a.kind == Attribute::Kind::collection)
                addElements(entity, a, here + "[" + keyName(*a.element()) + "]");
            else
                addRow(here, a.kind == Attribute::Kind::plain ? defaultOf(a, entity) : "empty");
        }
    }
    void addElements(Entity& entity, const Attribute& a, const std::string& path) {
        addRow(path, "none");
        addEntity(a.create(entity, sampleKey(a), [](Entity&) {}), path);
    }
    static std::string defaultOf(const Attribute& a, const Entity& entity) {
        const Agent::Json value = Agent::toJson(a.get(entity));
        if (value.is_null()) return "absent";
        if (!value.is_string()) return value.dump();
        return value.get<std::string>().empty() ? "empty" : value.get<std::string>();
    }
    void addRow(const std::string& path, std::string value) {
        const auto found = texts.find(path);
        if (found == texts.end()) throw std::logic_error(path + " is not in the reference");
        const Text& text = found->second;
        if (std::string_view(text.meaning).starts_with("required")) value = "";
        text_ += "| `" + path.substr(root_.size() + 1) + "` | " + text.value + " | " + value +
                 " | " + text.meaning + " |\n";
        ++rows_;
    }

    std::string text_, root_;
    size_t rows_ = 0;
};

}  // namespace

std::string reference() {
    Page page;
    const auto config = Vel::make<Nav::NavCliConfig>(Agent::configName);
    page.add(Agent::configName, "Path selection: `--config`, `/cliConfig`", *config);
    page.add(Agent::forwardingName, "Forwarding: `--forwarding`, `/forwardingConfig`",
             *Agent::makeForwarding());
    page.add(Agent::ipsecName, "IPsec profiles: `--ipsec`, `/ipsecConfig`", *Agent::makeIpsec());
    return R"(# Reference of the configuration

Every attribute of the three files, below the path of its root in the agent's tree. A name in brackets
stands for a key; an attribute that is absent has its default. `navctl reference` prints this page, from
the agent's own descriptors; the pages on [the configuration](configuration.md),
[forwarding](configuration-forwarding.md), [quality](quality.md) and [IPsec](ipsec.md) explain how the parts
work together. Names are text of any length unless a length is given, without control characters.
)" + page.finish();
}

}  // namespace Navctl

// What the kernel must hold so that packets take the paths that path selection decided, computed
// from published state and the forwarding configuration. It decides nothing and changes nothing.
//
// In each VRF with a segment:
//
// - a tunnel device, and a next hop for each path that is up;
// - a table for all applications whose rules in the VRF's policy name the same load-balance
//   profiles; the marks of their packets select it. It has a route for each prefix behind each
//   site. The route leads to a group of next hops: the members of the load-balance ids that
//   MemberChoice chooses, which are the same for these applications. Without a member it is
//   "unreachable", so that packets never take a path that the policy does not allow. Where the VRF
//   has a more specific route from somebody else, a "throw" route leaves the decision to that
//   route;
// - such a table for packets that match no rule, if the policy has no default rule: its routes lead
//   to all paths of a site;
// - routes for the same prefixes in the VRF's table. They lead the router's own packets to the
//   tunnel device, where they are classified;
// - a table for each source address of a path, selected by source address and UDP port. It pins the
//   tunnel packets and probes of a path to its interface, whatever the main table prefers; and
//   another one for the packets of IKE.
//
// Applications share groups because the kernel waits for all processors each time it replaces one:
// a link that fails must not cost that for each of a thousand load-balance ids.
//
// Objects are planned in slices. A slice is replaced as a whole when its inputs change, so that an
// event costs no more than the objects it concerns.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <unordered_set>
#include <variant>

#include "agent/linux/forwarding/Numbers.h"
#include "agent/linux/forwarding/VrfRoutes.h"
#include "agent/linux/kernel/IpsecDevice.h"
#include "agent/linux/kernel/LinkState.h"
#include "agent/linux/kernel/Objects.h"
#include "agent/model/ForwardingConfig.h"
#include "agent/router/MemberChoice.h"

namespace Agent::Linux {

// A VRF with a segment of the overlay.
struct Segment {
    L3::VrfName vrf;
    uint32_t vrfId = 0;
    uint32_t index = 0;  // of the VRF's device; 0 of the VRF "default"
    uint32_t table = 0;  // of the VRF
    uint32_t vni = 0;
    Tunnel tunnel;
    uint32_t tunnelIndex = 0;  // 0: the device does not exist, or is somebody else's

    bool operator==(const Segment&) const = default;
};

// A path whose next hop is known.
struct PathHop {
    Nav::PathKey path;
    Netz::IpGenAddr gateway;
    uint32_t ifIndex = 0;
    Netz::IntfId intfId;
    uint32_t weight = 1;
    bool secured = false;  // by IPsec
    bool usable = true;    // an unusable one is pinned to its interface, so that it can be probed

    bool operator==(const PathHop&) const = default;
};

// The priorities of the agent's rules. Both come before those of VRF devices (1000).
inline constexpr uint32_t pinPriority = 110;
inline constexpr uint32_t applicationPriority = 111;
// Metric of routes in the agent's own tables.
inline constexpr uint32_t ownMetric = 110;
// Metric of routes in the VRF's table: routes from anybody else are preferred. A routing daemon
// reads the highest byte as administrative distance, and never selects a route of distance 255.
inline constexpr uint32_t lastMetric = 0xff000000 | ownMetric;

// In place of an application id: packets that match no rule of the policy.
inline constexpr uint32_t noApplication = 0xFFFFFFFF;

// What a VRF's policy does with packets.
struct Policy {
    // In ascending order of their keys. The last one takes every packet: the policy's default rule,
    // or without one a rule of `noApplication`.
    std::vector<Nav::NavRuleEntry> rules;
    // The table of each application in these rules.
    std::map<uint32_t, uint32_t> tables;
};

class Plan {
  public:
    // `routes` and `choice` must outlive this.
    Plan(const Nav::NavInputs& inputs, ForwardingPtr config, const VrfRoutes& routes,
         const MemberChoice& choice);

    struct LbKeyHash {
        size_t operator()(const Nav::LbProfileKey& key) const {
            return Vel::Codec<Nav::LbProfileKey>::mix(key);
        }
    };
    using LbKeys = std::unordered_set<Nav::LbProfileKey, LbKeyHash>;

    // No object gets the number. Returns whether one might have got it. REQUIRES: nothing is
    // planned.
    bool reserve(uint32_t number) { return numbers_.reserve(number); }

    using Segments = std::map<L3::VrfName, Segment>;
    // The configured segments whose VRF exists.
    Segments segmentsIn(const InterfaceView& view) const;
    // Whether replanAll() is required: segments have changed, or who encrypts.
    bool outdated(const InterfaceView& view) const;

    // Each recomputes the objects that depend on its subject.
    //
    // `udpPort`: of the tunnels from now on.
    void replanAll(const InterfaceView& view, uint16_t udpPort);
    // A second path with the same addresses in another VRF is ignored, because the kernel tells
    // tunnel packets apart by their addresses only.
    // Returns whether anything changed.
    bool pathIs(uint32_t pathIndex, const PathHop& hop);
    void pathDel(uint32_t pathIndex);
    // A secured path whose next hop is known, whether or not packets can be sent over it: the
    // packets of IKE, and of ESP where it is encapsulated in UDP, are pinned to its interface.
    void securedIs(uint32_t pathIndex, const PathHop& hop);
    void securedDel(uint32_t pathIndex);
    void replanSites();  // all of them, and what they leave to others' routes
    void replanGroups(const LbKeys& keys);
    void replanAnyPaths(const std::set<Netz::IpGenAddr>& sites);
    void replanMembers(const Netz::IpGenAddr& site);  // of all groups that lead to it

    const Objects& wanted() const { return wanted_; }
    // Completes the plan, and returns the keys that it has changed since the last call.
    ObjectKeys takeChanged();

    const Segments& segments() const { return segments_; }
    uint16_t udpPort() const { return udpPort_; }
    const std::map<uint32_t, PathHop>& paths() const { return paths_; }  // by path index
    bool usable(uint32_t pathIndex) const;  // whether packets may take the path
    // The next hops of a path, one for each segment.
    std::vector<ObjectKey> nexthopsOf(const Nav::PathKey& path);
    // The firewall mark of an application's packets in a VRF.
    uint32_t markOf(const L3::VrfName& vrf, uint32_t appId);
    // Of a VRF with a segment, as of the last replanAll().
    const Policy& policy(const L3::VrfName& vrf) const { return policies_.at(vrf); }
    // The VRF and application of each mark in use.
    const std::map<uint32_t, std::pair<L3::VrfName, uint32_t>>& applications() const {
        return applications_;
    }

    // The prefixes behind each site, in one VRF.
    using Prefixes = std::map<Netz::IpGenAddr, std::set<IpPrefix>>;
    // Of a VRF with a segment.
    const Prefixes& prefixes(const L3::VrfName& vrf) const { return prefixes_.at(vrf); }
    // The members chosen, of `noApplication` all usable paths; none if the site is unreachable.
    NexthopGroup group(const Segment& segment, const Netz::IpGenAddr& site, uint32_t appId);
    uint32_t nexthopId(const Segment& segment, const Nav::PathKey& path);

  private:
    struct Devices {
        auto operator<=>(const Devices&) const = default;
    };
    struct Applications {
        auto operator<=>(const Applications&) const = default;
    };
    struct Source {
        Netz::IpGenAddr addr;
        auto operator<=>(const Source&) const = default;
    };
    struct IkeSource {
        Netz::IpGenAddr addr;
        auto operator<=>(const IkeSource&) const = default;
    };
    struct PathNexthops {
        uint32_t pathIndex;
        auto operator<=>(const PathNexthops&) const = default;
    };
    struct SiteRoutes {
        Netz::IpGenAddr site;
        auto operator<=>(const SiteRoutes&) const = default;
    };
    struct Others {
        auto operator<=>(const Others&) const = default;
    };
    using Slice =
        std::variant<Devices, Applications, Source, IkeSource, PathNexthops, SiteRoutes, Others>;

    void replace(const Slice& slice, const Objects& objects);
    void planDevices();
    void planApplications();
    void planSource(const Netz::IpGenAddr& source);
    void planIkeSource(const Netz::IpGenAddr& source);
    void planPath(uint32_t pathIndex);
    Prefixes prefixesIn(const Segment& segment) const;
    void replanSite(const Netz::IpGenAddr& site);
    bool replaceMembers(const NexthopGroup& group);
    uint32_t groupId(uint32_t table, const Netz::IpGenAddr& site);
    void planSite(Objects& objects, const Segment& segment, const Netz::IpGenAddr& site,
                  const std::set<IpPrefix>& prefixes);
    void planOthers();
    NexthopGroup anyPath(const Segment& segment, const Netz::IpGenAddr& site);
    void addMember(NexthopGroup& group, const Segment& segment, uint32_t pathIndex);
    Policy policyOf(const Segment& segment);

    const Nav::NavInputs in_;
    const ForwardingPtr config_;
    const VrfRoutes& routes_;
    const MemberChoice& choice_;
    Numbers numbers_;
    uint16_t udpPort_ = 0;
    Segments segments_;
    std::map<uint32_t, PathHop> paths_;    // by path index
    std::map<uint32_t, PathHop> secured_;  // the same
    uint32_t ipsecIndex_ = 0;              // of ipsecDevice; 0: it does not exist
    std::map<L3::VrfName, Prefixes> prefixes_;
    std::map<L3::VrfName, Policy> policies_;
    std::map<uint32_t, std::pair<L3::VrfName, uint32_t>> applications_;
    Objects wanted_;
    std::map<Slice, std::vector<ObjectKey>> slices_;
    // The slice that planned each key of wanted_ last: a prefix that moves to another site is in
    // both slices until the second of them is replaced.
    std::map<ObjectKey, Slice, KeyOrder> owners_;
    ObjectKeys changed_;
    // Whose tables takeChanged() plans: once for all paths of a link that fails.
    std::set<Netz::IpGenAddr> sources_;
};

}  // namespace Agent::Linux

// Path construction: turns path groups and the addresses of WAN interfaces into path configuration.
//
// The paths of a group are the cross product of the primary addresses of its local interfaces and
// the destination addresses of its remote sites, each in the VRF of the interface. An interface is
// a WAN interface while some group lists it. A path gets the lowest-waiting free index and keeps it
// while it lives; an index is at any time free or used by exactly one path.
//
// - Each interface remembers the source (address and VRF) that its paths were built from. Removals
//   go by what is remembered, so an interface loses exactly its own paths, whatever became of its
//   status meanwhile.
// - Several sites, groups or interfaces may want one path key. Each has a claim on it; the path
//   belongs to the claim that was made last. A claim that goes changes nothing for others; when the
//   owner's goes, the path passes to the one made before it, under the same index.
// - A path that goes leaves the database first, then the configuration, whose removal makes path
//   resolution withdraw what it derived. Where nobody resolves the path's VRF, construction does
//   that itself. Only then is the index free again.
//
// Owned by the container, for as long as the feature is configured. It owns a reactor per path
// group and one per interface with IP status. When it is initialised it empties the directories of
// paths and site groups; when it is cleaned up it removes path by path and leaves them empty.
#pragma once

#include <set>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "nav/path/IntfSource.h"
#include "nav/path/NavPathGroupSm.h"
#include "nav/types/FreeIdQueue.h"
#include "nav/types/NavDb.h"
#include "nav/types/NavStatusDir.h"
#include "platform/services/Ip.h"
#include "platform/services/Routing.h"

namespace Nav {

// Who wants a path: one site of one group over one interface.
struct PathClaim {
    Netz::IntfId intf;
    SiteGroupKey siteGroupKey;
    L3::VrfName vrfName;

    bool operator==(const PathClaim&) const = default;
};

class NAV_EXPORT NavPathGroupDirSm final : public Vel::Reactor {
  public:
    static constexpr std::string_view name = "Nav::NavPathGroupDirSm";
    struct Inputs {
        Vel::Input<NavCliConfig> cliConfig;                               // read
        Vel::Input<Ip::Status> ipStatus;                                  // read
        Vel::Input<Routing::Hardware::RouteStatus> routingHwRouteStatus;  // read
        Vel::Input<SiteGroupStatus> siteGroupStatus;
        Vel::Input<PathConfigDir> pathConfigDir;
        Vel::Input<PathStatusDir> pathStatusDir;
        Vel::Input<NavStatusDir> navStatusDir;
        Vel::Input<Routing::NexthopConfig> nexthopConfig;  // an entry per VRF of a WAN interface
        Vel::Input<Routing::NexthopStatus> nexthopStatus;
        U32 maxPathIndex = 0;  // the highest index handed out
        Vel::Input<NavDb> navDb;
    };

    explicit NavPathGroupDirSm(const Inputs& inputs);
    const Inputs& inputs() const { return in_; }

    void handleInitialized() override;
    void doCleanup() override;

    // A path group came or went; without argument, for every group there is.
    void handlePathGroup();
    void handlePathGroup(const Vel::Name& pgName);
    // Moves the paths of an interface from one source to another: first all removals, then all
    // additions; those of every group that lists the interface, or of one.
    void handleIntfPrimaryAddr(const Netz::IntfId& intf, const IntfSource& now,
                               const IntfSource& before, NavPathGroupSm* only = nullptr);

    // For the path group reactors.

    // What the interface's paths are built from; no address and no VRF without IP status.
    IntfSource sourceOf(const Netz::IntfId& intf) const;
    // Its address alone; zero, with a trace, while there is none.
    Netz::IpGenAddr getSrcIntfIp(const Netz::IntfId& intf) const;
    // Makes an interface a WAN interface of a group, and ends that.
    void intfToPgNameIs(const Netz::IntfId& intf, const Vel::String& pgName);
    void intfToPgNameDel(const Netz::IntfId& intf, const Vel::String& pgName);
    // Adds or removes the paths from one source to all destinations of one site, or to one of them.
    // REQUIRES: source.offersPaths().
    void updatePathsForSite(const Netz::IntfId& intf, const IntfSource& source,
                            const RemoteViaConfig& site, const Vel::String& pgName, bool remove);
    void updatePath(const Netz::IntfId& intf, const IntfSource& source, const Netz::IpGenAddr& dst,
                    const SiteGroupKey& site, bool remove);
    // Enters or withdraws one claim on a path.
    void addPathToConfig(const PathKey& pathKey, const PathClaim& claim);
    void removePathFromConfig(const PathKey& pathKey, const PathClaim& claim);
    // A site of a group came or went.
    void remoteSiteIs(const SiteGroupKey& site);
    void remoteSiteDel(const SiteGroupKey& site);

    // The group that an interface joined last; null for one that is not a WAN interface.
    const Vel::String* intfToPgName(const Netz::IntfId& intf) const;
    bool freePathIds() const { return !freePathId_.empty(); }
    U32 freePathIdCount() const { return freePathId_.size(); }
    NavPathGroupSm* navPathGroupSm(const Vel::String& pgName) const {
        return navPathGroupSm_(pgName);
    }

  private:
    class VelIpIntfStatus;
    class VelVrfStatus;

    struct Path {
        U16 index = 0;
        std::vector<PathClaim> claims;  // in the order in which they were made; the last one owns
    };
    struct PathKeyHash {
        size_t operator()(const PathKey& key) const { return Vel::Codec<PathKey>::mix(key); }
    };

    ~NavPathGroupDirSm() override;

    void emptyDirectories();
    void deletePathGroup(NavPathGroupSm& group);

    std::optional<U32> vrfIdOf(const L3::VrfName& vrfName) const;
    void recordVrf(const IntfSource& source);
    void handleVrf(const L3::VrfName& vrfName);
    void handleIntfDelete(const Netz::IntfId& intf, const IntfSource& before);
    std::vector<Vel::Ptr<NavPathGroupSm>> groupsOf(const Netz::IntfId& intf) const;
    void updatePathsForIntf(const Netz::IntfId& intf, const IntfSource& source,
                            NavPathGroupSm* only, bool remove);

    template <class Predicate>
    void withdrawClaims(const PathKey& pathKey, Predicate withdrawn);
    void changeOwner(const PathKey& pathKey, U16 index, const PathClaim& before,
                     const PathClaim& now);
    void publishPath(const PathKey& pathKey, U16 index, const PathClaim& owner);
    void unpublishPath(const PathKey& pathKey, U16 index, const PathClaim& owner);
    void forgetUnresolved(const PathKey& pathKey, U16 index, const PathClaim& owner);
    void deletePath(const PathKey& pathKey);
    bool leaveSite(const SiteGroupKey& site, U16 index);
    void releaseSource(const Netz::IpGenAddr& src, const Netz::IntfId& intf);

    Inputs in_;
    bool initialized_ = false;
    FreeIdQueue freePathId_;
    std::unordered_map<PathKey, Path, PathKeyHash> paths_;
    std::unordered_map<Netz::IntfId, std::vector<Vel::String>> intfToPgName_;
    std::unordered_map<Netz::IpGenAddr, U32> remoteSiteUsers_;  // groups that configure each site
    std::unordered_map<L3::VrfName, std::set<Netz::IntfId>> vrfToIntf_;
    Vel::ReactorMap<Vel::String, NavPathGroupSm> navPathGroupSm_;
    Vel::Subscription pathGroupConfig_;
    Vel::EntryReactorsOf<VelVrfStatus, decltype(Routing::Hardware::RouteStatus::vrfStatusAttr)>
        vrfStatus_;
    Vel::EntryReactorsOf<VelIpIntfStatus, decltype(Ip::Status::ipIntfStatusAttr)> ipIntfStatus_;
};
VEL_INPUTS(NavPathGroupDirSm::Inputs, cliConfig, ipStatus, routingHwRouteStatus, siteGroupStatus,
           pathConfigDir, pathStatusDir, navStatusDir, nexthopConfig, nexthopStatus, maxPathIndex,
           navDb)

}  // namespace Nav

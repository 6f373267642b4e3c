// Path construction: turns path groups and the addresses of WAN interfaces into path configuration.
//
// The paths of a group are the cross product of the primary addresses of its local interfaces and
// the destination addresses of its remote sites, each in the VRF of the interface. An interface is
// a WAN interface while a group lists it. A new path takes the index that has been free longest and
// keeps it for its lifetime; an index is either free or used by exactly one path. When no index is
// free even after all paths due for removal have been removed, adding a path stops the process.
//
// - Several sites, groups or interfaces may want the same path. Each has a claim on it, and the
//   newest claim owns the path. Withdrawing another claim changes nothing; when the owner's claim
//   is withdrawn, the path passes to the claim made before it and keeps its index.
// - A path is removed according to the claims made on it, independent of the configuration and the
//   interfaces at that time. A claim is made or kept only while both justify it.
// - A removed path leaves the database first, then the configuration, whose removal makes path
//   resolution withdraw what it derived. If no reactor resolves the path's VRF, construction
//   withdraws that itself. The index is free only afterwards; a path that is added during the
//   removal and needs the index waits until then.
// - Every write to a published directory may call subscribers that change the inputs. After each
//   write the reactor checks whether its publication of the path is still the newest.
//
// Owned by the container for as long as the feature is configured. It owns one reactor per path
// group and one per interface with IP status. handleInitialized() empties the directories of paths
// and site groups; doCleanup() removes path by path and leaves them empty.
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

class NAV_EXPORT NavPathGroupDirSm final : public Vel::Reactor {
  public:
    static constexpr std::string_view name = "Nav::NavPathGroupDirSm";
    struct Inputs {
        Vel::Input<NavCliConfig> cliConfig;                               // read
        Vel::Input<Ip::Status> ipStatus;                                  // read
        Vel::Input<Routing::Hardware::RouteStatus> routingHwRouteStatus;  // read
        Vel::Input<SiteGroupStatus> siteGroupStatus;                      // written
        Vel::Input<PathConfigDir> pathConfigDir;                          // written
        Vel::Input<PathStatusDir> pathStatusDir;                          // written
        Vel::Input<NavStatusDir> navStatusDir;                            // written
        Vel::Input<Routing::NexthopConfig> nexthopConfig;  // an entry per VRF of a WAN interface
        Vel::Input<Routing::NexthopStatus> nexthopStatus;  // read: which VRFs are resolved
        U32 maxPathIndex = 0;                              // the highest index allocated
        Vel::Input<NavDb> navDb;                           // written
    };

    explicit NavPathGroupDirSm(const Inputs& inputs);
    const Inputs& inputs() const { return in_; }

    void handleInitialized() override;
    void doCleanup() override;

    // A path group was added or removed; without argument, for every configured group.
    void handlePathGroup();
    void handlePathGroup(const Vel::Name& pgName);
    // Moves the paths of an interface to its current address and VRF: removes those from any other
    // source, then creates those from the current one. `addr` is zero if the interface has no
    // address or left the group. With `only`, for that group; otherwise for every group that lists
    // the interface.
    void handleIntfPrimaryAddr(const Netz::IntfId& intf, const Netz::IpGenAddr& addr,
                               const Netz::IpGenAddr& prevAddr, NavPathGroupSm* only = nullptr);
    // The IP status of an interface was removed; `addr` was its last address.
    void handleIntfDelete(const Netz::IntfId& intf, const Netz::IpGenAddr& addr);

    // For the path group reactors.

    // Creates the paths of one interface to all destinations of one site of a group.
    void createPathsForIntf(const Netz::IntfId& intf, const Netz::IpGenAddr& viaAddr,
                            const Vel::String& pgName);
    // Creates the path of one interface to one destination. Does nothing while the interface has no
    // address or its VRF no id, or if the configuration does not list the interface or the
    // destination.
    void createPath(const Netz::IntfId& intf, const Netz::IpGenAddr& viaAddr,
                    const Netz::IpGenAddr& dst, NavPathGroupSm& group);
    // Makes a claim of the site on a path over the interface, which then owns the path.
    // REQUIRES: the site's group is configured.
    void addPathToConfig(const PathKey& pathKey, const SiteGroupKey& siteGroupKey,
                         const L3::VrfName& vrfName, const Netz::IntfId& intf);
    // Withdraws all claims of a group on a path, in whichever VRF each was made.
    void removePathFromConfig(const PathKey& pathKey, const Vel::String& pgName);
    // Withdraws the claims of a group on a path that are not justified any more.
    void removeStalePath(const PathKey& pathKey, NavPathGroupSm& group);

    // The address of an interface; zero, with a trace, if it has none.
    Netz::IpGenAddr getSrcIntfIp(const Netz::IntfId& intf) const;
    // The VRF id of an interface; 0 without IP status or while the id is not known. Records the
    // VRF's name and id in the database.
    U32 getSrcIntfVrfId(const Netz::IntfId& intf);

    // Adds a group to those that list an interface, or removes it. The newest group is the
    // interface's group; null for an interface that is not a WAN interface.
    void intfToPgNameIs(const Netz::IntfId& intf, const Vel::String& pgName);
    void intfToPgNameDel(const Netz::IntfId& intf, const Vel::String& pgName);
    const Vel::String* intfToPgName(const Netz::IntfId& intf) const;
    // A site of a group was added or removed.
    void remoteSiteIs(const SiteGroupKey& site);
    void remoteSiteDel(const SiteGroupKey& site);

    // Withdraws the claims of a group whose profile was cleared, as long as it has none.
    void handleProfileCleared(NavPathGroupSm& group);

    // Whether indices are about to become free: a removal is running, or the feature has been
    // switched off and the container is about to be told.
    bool mayWait() const { return removals_ > 0 || !in_.cliConfig->navConfigured(); }
    void createWaiting();
    bool freePathIds() const { return !freePathId_.empty(); }
    void freePathIdEnq(U16 index) { freePathId_.enq(index); }
    U16 freePathIdDeq() { return freePathId_.deq(); }
    NavPathGroupSm* navPathGroupSm(const Vel::String& pgName) const {
        return navPathGroupSm_(pgName);
    }

  private:
    class VelIpIntfStatus;
    class VelVrfStatus;

    // One site of one group wants a path over one interface.
    struct PathClaim {
        Netz::IntfId intf;
        SiteGroupKey siteGroupKey;
        L3::VrfName vrfName;

        bool operator==(const PathClaim&) const = default;
    };
    struct Path {
        U16 index = 0;
        U32 publication = 0;  // number of the newest publication, unique over all paths
        std::vector<PathClaim>
            claims;  // in the order they were made, never empty; the last one owns
    };
    struct PathKeyHash {
        size_t operator()(const PathKey& key) const { return Vel::Codec<PathKey>::mix(key); }
    };

    ~NavPathGroupDirSm() override;

    void emptyDirectories();
    void deletePathGroup(NavPathGroupSm& group);

    IntfSource sourceOf(const Netz::IntfId& intf) const;
    std::optional<U32> vrfIdOf(const L3::VrfName& vrfName) const;
    void handleVrf(const L3::VrfName& vrfName);
    void removeStalePaths(const Netz::IntfId& intf, NavPathGroupSm* only);
    void removeStalePaths();
    template <class Removal>
    void remove(Removal removal);
    std::vector<Vel::Ptr<NavPathGroupSm>> groupsOf(const Netz::IntfId& intf) const;

    bool isJustified(const PathKey& pathKey, const PathClaim& claim,
                     const NavPathGroupSm& group) const;
    static auto isOf(const NavPathGroupSm& group);
    template <class Predicate>
    void withdrawClaims(const PathKey& pathKey, NavPathGroupSm& group, Predicate withdrawn);
    bool isNewest(const PathKey& pathKey, U32 publication) const;
    void changeOwner(const PathKey& pathKey, Path& path, const PathClaim& before);
    bool publishPath(const PathKey& pathKey, const Path& path, const PathClaim& owner);
    void unpublishPath(const PathKey& pathKey, const L3::VrfName& vrfName);
    void forgetPath(const PathKey& pathKey, const L3::VrfName& vrfName);
    void deletePath(const PathKey& pathKey);
    void removePath(const PathKey& pathKey);
    void leaveSite(const SiteGroupKey& site, U32 index);
    void releaseSource(const Netz::IpGenAddr& src, const Netz::IntfId& intf);

    Inputs in_;
    bool initialized_ = false;  // from handleInitialized() on; no path is made before
    bool ended_ = false;        // from doCleanup() on; no path is made after
    FreeIdQueue freePathId_;    // exactly the indices that no path in paths_ uses
    U32 publications_ = 0;      // number of publications and deletions begun
    U32 removals_ = 0;          // calls of remove() that are running
    // Claims made while no index was free and mayWait(), each with the path's destination, in the
    // order they were made. Empty while paths may not wait.
    std::vector<std::pair<PathClaim, Netz::IpGenAddr>> waiting_;
    std::unordered_map<PathKey, Path, PathKeyHash> paths_;
    // The groups that list each interface, in the order they were added, never empty.
    std::unordered_map<Netz::IntfId, std::vector<Vel::String>> intfToPgName_;
    // How many groups configure each site, never 0.
    std::unordered_map<Netz::IpGenAddr, U32> remoteSiteUsers_;
    // The interfaces in each VRF, never empty.
    std::unordered_map<L3::VrfName, std::set<Netz::IntfId>> vrfToIntf_;
    Vel::ReactorMap<Vel::String, NavPathGroupSm> navPathGroupSm_;
    Vel::Subscription pathGroupConfig_, navConfigured_;
    Vel::EntryReactorsOf<VelVrfStatus, decltype(Routing::Hardware::RouteStatus::vrfStatusAttr)>
        vrfStatus_;
    Vel::EntryReactorsOf<VelIpIntfStatus, decltype(Ip::Status::ipIntfStatusAttr)> ipIntfStatus_;
};
VEL_INPUTS(NavPathGroupDirSm::Inputs, cliConfig, ipStatus, routingHwRouteStatus, siteGroupStatus,
           pathConfigDir, pathStatusDir, navStatusDir, nexthopConfig, nexthopStatus, maxPathIndex,
           navDb)

}  // namespace Nav

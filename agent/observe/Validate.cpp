#include "agent/observe/Validate.h"

#include <algorithm>
#include <map>
#include <set>

#include "agent/observe/Replica.h"

namespace Agent {

using Nav::NavInputs;
using Vel::U32;

namespace {

template <class T>
std::string textOf(const T& value) {
    return Vel::Codec<T>::key(value);
}

// What is published, as sentences without ids, indices and generations: equal for equal states.
class Facts {
  public:
    Facts(const NavInputs& inputs, const Nav::NavDb* database) : in_(inputs), database_(database) {
        if (database)
            for (const Nav::PathKeyInfo& info : database->pathKeyInfo())
                names_[info.pathIndex()] = pathText(info.pathKey());
        addPaths();
        addSites();
        addApplications();
        addRequests();
    }

    const std::set<std::string>& all() const { return facts_; }

  private:
    static std::string pathText(const Nav::PathKey& key) {
        return "path " + key.srcAddr.stringValue() + " -> " + key.dstAddr.stringValue() +
               " of VRF id " + std::to_string(key.vrfId);
    }
    std::string nameOf(U32 index) const {
        const auto found = names_.find(index);
        return found == names_.end() ? "a path that does not exist" : found->second;
    }

    void addPaths() {
        for (const Nav::PathConfig& vrf : in_.pathConfigDir->pathConfig())
            for (const Nav::PathConfigEntry& path : vrf.pathConfigEntry())
                facts_.insert(pathText(path.key()) + " is requested in VRF " + vrf.vrfName().str() +
                              " with IPsec profile \"" + path.ipsecProfile() + '"');
        const Nav::PathStatusDir* dir = in_.navStatusDir->navPathStatusDir();
        if (!dir) return;
        for (const Nav::PathStatus& vrf : dir->pathStatus())
            for (const Nav::PathStatusEntry& path : vrf.pathStatusEntry()) {
                const Nav::HwPathInfo& info = path.pathInfo();
                facts_.insert(pathText(path.key()) + " is " + textOf(info.pathType) + ", " +
                              textOf(info.pathState) + " by " + textOf(info.via) +
                              ", encapsulation id " + std::to_string(path.encapId()) +
                              (path.programmed() ? ", programmed" : ", not programmed"));
            }
    }
    void addSites() {
        for (const auto& site : in_.siteGroupStatus->siteGroupStatusEntry())
            for (const U32 index : site.pathIndexEntry())
                facts_.insert("site " + textOf(site.key()) + " has " + nameOf(index));
        for (const Netz::IpGenAddr& site : in_.navStatusDir->navRemoteIpList())
            facts_.insert("site " + site.stringValue() + " is configured");
    }
    // A site that has vanished keeps its ids, without members, until they are needed.
    void addApplications() {
        for (const Nav::NavRuleStatus& vrf : in_.navStatusDir->navRuleStatus())
            for (const Nav::NavRuleEntry& rule : vrf.navRuleEntry())
                facts_.insert("VRF " + vrf.name().str() + " has rule " + textOf(rule));
        const Nav::LbProfileStatus* ids = in_.navStatusDir->navLbProfileStatus();
        if (!ids) return;
        for (const Nav::LbProfileStatusEntry& entry : ids->lbProfileStatusEntry())
            for (const Nav::PathWithPriority& member : entry.pathEntry())
                facts_.insert("load-balance key " + textOf(entry.key()) + " with limits " +
                              std::to_string(entry.latency()) + ", " +
                              std::to_string(entry.jitter()) + ", " +
                              std::to_string(entry.lossRate()) + " has " +
                              nameOf(member.pathIndex) + " with priority " +
                              std::to_string(member.priority) + " of " + member.groupName);
    }
    void addRequests() {
        for (const Routing::NexthopVrfConfig& vrf : in_.nexthopConfig->vrf())
            for (const Netz::IpGenAddr& address : vrf.nexthop())
                facts_.insert("next hop " + address.stringValue() + " is requested in VRF " +
                              vrf.vrfName().str());
        for (const auto& request : in_.ipsecPathConfigDir->ipsecPathConfig())
            facts_.insert("IPsec connection " + textOf(request.key()) +
                          " is requested with profile \"" + request.profile() + "\" on interface " +
                          request.intfId().stringValue());
        for (const auto& policy : in_.navFeaturePolicyDir->featurePolicy()) {
            facts_.insert("policy " + policy.name() + " is classified");
            for (const auto& [priority, application] : policy.appProfilePriority())
                facts_.insert("policy " + policy.name() + " has application " + application +
                              " at " + std::to_string(priority));
        }
        for (const auto& applied : in_.navFeaturePolicyDir->appliedPolicy())
            for (const auto& [vrf, policy] : applied.policyForTarget())
                facts_.insert("policy " + textOf(policy) + " is applied to VRF " + textOf(vrf));
    }

    const NavInputs& in_;
    const Nav::NavDb* const database_;
    std::map<U32, std::string> names_;  // of the paths
    std::set<std::string> facts_;
};

void compareWithFreshStart(const NavInputs& in, const Nav::NavDb* database,
                           std::vector<std::string>& differences) {
    const Replica replica(in, database, *in.cliConfig);
    const Facts is(in, database), should(replica.inputs(), replica.database());
    for (const std::string& fact : should.all())
        if (!is.all().contains(fact)) differences.push_back("missing: " + fact);
    for (const std::string& fact : is.all())
        if (!should.all().contains(fact)) differences.push_back("not expected: " + fact);
}

// Each path has an index of its own, as has each key of load balancing.
void checkIds(const NavInputs& in, const Nav::NavDb* database,
              std::vector<std::string>& differences) {
    std::map<U32, size_t> held, ids;
    size_t requested = 0;
    for (const Nav::PathConfig& vrf : in.pathConfigDir->pathConfig())
        for (const Nav::PathConfigEntry& path : vrf.pathConfigEntry()) {
            ++held[path.pathIndex()];
            ++requested;
        }
    if (const auto* status = in.navStatusDir->navLbProfileStatus())
        for (const auto& entry : status->lbProfileStatusEntry()) ++ids[entry.lbIndex()];
    const auto check = [&](const char* what, const std::map<U32, size_t>& users, U32 last) {
        for (const auto& [id, count] : users)
            if (id == 0 || id > last || count > 1)
                differences.push_back(std::string(what) + " " + std::to_string(id) + " has " +
                                      std::to_string(count) + " users");
    };
    check("path index", held, Nav::NavConstants::maxPathIndex);
    check("load-balance id", ids, Nav::NavConstants::maxLbIndex);
    const size_t known = database ? database->pathKeyInfo().size() : 0;
    if (known != requested)
        differences.push_back(std::to_string(known) + " path indices are held, " +
                              std::to_string(requested) + " are needed");
}

}  // namespace

std::vector<std::string> validate(const NavInputs& inputs, const Nav::NavDb* database,
                                  Platform& platform) {
    std::vector<std::string> differences;
    compareWithFreshStart(inputs, database, differences);
    checkIds(inputs, database, differences);
    for (std::string& difference : platform.validate())
        differences.push_back(std::move(difference));
    return differences;
}

}  // namespace Agent

// What must be published, told from the inputs alone. The oracle is written from the promises that
// the system makes and shares no code with the reactors that keep them.
//
// Most of what is published is a function of the inputs as they are now. What is not, because it is
// kept over changes on purpose, is held against what stood there at the last check: an index stays
// with its path and an id with its key, generations never fall, a path keeps its via while no via
// of its route fits, rules and classification stay as the policy's last version made them. Where
// the promises leave a choice (which of two sites owns a path that both list), each choice is
// accepted. Everything published that is not expected is a difference.
#pragma once

#include <stdexcept>
#include <unordered_map>

#include "tests/oracle/World.h"

namespace Oracle {

// The first difference, with its place on the control socket.
class Difference : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class Oracle {
  public:
    // To be called after every single change of an input, once its notifications have run; settled:
    // and the scheduler's tasks too. Throws Difference.
    void check(const World& world, bool settled);
    // A new root has taken over what an old one left in the directories.
    void restarted() { fresh_ = true; }

  private:
    // A site of a path group that lists a path's destination, by way of an interface of the group.
    struct Claim {
        Nav::SiteGroupKey site;
        IntfId intf;
        auto operator<=>(const Claim&) const = default;
    };
    using Claims = std::map<Nav::PathKey, std::set<Claim>>;

    // A path that must exist, as the sections after paths() need it.
    struct Live {
        VrfName vrf;
        Nav::SiteGroupKey owner;
        std::set<IntfId> intfs;
        U32 index = 0;
        String ipsecProfile;
        bool isNew = false;
        bool moved = false;  // to another owner, or that may be
        Nav::HwPathInfo info = {};
        U32 encapId = Nav::noEncapId;
        bool programmed = false;
    };
    struct Bound {
        String policy;
        U32 vrfId;
        bool operator==(const Bound&) const = default;
    };
    struct Balance {
        U32 generation, id;
        std::map<U32, Nav::PathWithPriority> members;
    };
    // The values that a place may have; any if none is named.
    struct Choice {
        std::vector<std::string> values = {};
        bool required = false;
    };
    // Everything derived that later checks compare with.
    struct Results {
        Flat published;
        std::map<Nav::PathKey, Live> live;
        std::map<Nav::SiteGroupKey, std::set<U32>> siteGroups;
        std::map<VrfName, std::set<Nav::NavRuleEntry>> rules;
        std::map<Nav::LbProfileKey, Balance> balances;
    };

    void must(const std::string& place) { expected_[place].required = true; }
    void may(const std::string& place) { expected_[place]; }
    template <class Values>
    void mustBeOneOf(const std::string& place, const Values& values);
    template <class T>
    void must(const std::string& place, const T& value) {
        mustBeOneOf(place, std::initializer_list<T>{value});
    }
    void mayKeep(const std::string& place);
    void compare() const;

    static std::optional<U32> vrfIdOf(const Inputs& in, const VrfName& vrf);
    static std::optional<Bound> boundTo(const Inputs& in, const VrfName& vrf);
    static Claims claimsIn(const Inputs& in);
    static const Connection* connectionOf(const Inputs& in, const Nav::PathKey& key,
                                          const VrfName& vrf);
    bool hadResolver(const VrfName& vrf) const { return !fresh_ && last_.results.contains(vrf); }

    void withholdClaims();
    void followAddresses();
    void paths();
    Nav::SiteGroupKey owner(const Nav::PathKey& key, const std::set<Claim>& effective,
                            const std::set<Claim>& withheld);
    void path(const Nav::PathKey& key, const VrfName& vrf, const std::set<Claim>& effective,
              const std::set<Claim>& withheld);
    void database();
    void vrfMaps();
    void sites();
    void statuses();
    std::vector<std::string> infosFor(const Nav::PathKey& key, const Live& path,
                                      const Live* was) const;
    std::vector<Shard::Fib::Via> viasFor(const Nav::PathKey& key, const Live& path,
                                         const Live* was) const;
    std::set<U32> encapIdsFor(const Nav::PathKey& key, const Live& path, const Live* was) const;
    std::set<bool> programmedFor(const Nav::PathKey& key, const Live& path, const Live* was) const;
    void siteGroups();
    void nexthops();
    void requests();
    void reconcile();
    void rules();
    void classification();
    void balances();
    void balancesOver();
    bool keepsRules(U32 vrfId) const;
    const Nav::NavRuleEntry* governing(U32 vrfId, U32 appId, const String& group) const;

    const World* world_ = nullptr;                      // during a check
    std::unordered_map<std::string, Choice> expected_;  // by place
    Inputs last_, now_;
    Results before_, seen_;
    bool fresh_ = false, settled_ = true;

    Claims claims_, effectiveBefore_;
    std::set<IpGenAddr> claimants_;  // sites that may have had a path for a moment
    std::set<std::pair<Nav::PathKey, Claim>> withheld_;  // the group's profile was cleared
    std::set<std::pair<Nav::PathKey, Claim>> withheldBefore_;
    std::map<std::pair<IpGenAddr, VrfName>, std::set<IntfId>> intfsOf_;
    std::set<U32> indices_;                 // of paths
    std::map<VrfName, Policy> reconciled_;  // the policy as it was at the VRF's last reconciliation
};

}  // namespace Oracle

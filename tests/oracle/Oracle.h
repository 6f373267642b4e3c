// What must be published, told from the inputs alone. The oracle is written from the promises that
// the system makes and shares no code with the reactors that keep them.
//
// Most of what is published is a function of the inputs as they are now. What is not, because it is
// kept over changes on purpose, is held against what stood there at the last check: an index stays
// with its path and an id with its key, generations never fall, a path keeps its via while no via
// of its route fits, rules and classification stay as the policy's last version made them. Where
// the promises leave a choice (which of two sites owns a path that both list), each choice is
// accepted.
#pragma once

#include <stdexcept>

#include "tests/oracle/State.h"

namespace Oracle {

// The first difference: what() is "place: expected …, got …", the place as on the control socket.
class Difference : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class Oracle {
  public:
    // To be called after every single change of an input, once its notifications have run; settled:
    // and the scheduler's tasks too. Throws Difference.
    void check(Inputs now, Published seen, bool settled);
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
        U32 index;
        String ipsecProfile;
        bool isNew;
        bool moved;  // to another owner, or that may be
    };
    struct Bound {
        String policy;
        U32 vrfId;
        bool operator==(const Bound&) const = default;
    };

    static std::optional<U32> vrfIdOf(const Inputs& in, const VrfName& vrf);
    static std::optional<Bound> boundTo(const Inputs& in, const VrfName& vrf);
    static Claims claimsIn(const Inputs& in);
    static const Connection* connectionOf(const Inputs& in, const Nav::PathKey& key,
                                          const VrfName& vrf);

    bool hadResolver(const VrfName& vrf) const { return !fresh_ && last_.results.contains(vrf); }
    const Path* pathSeen(const Published& in, const Nav::PathKey& key, const VrfName& vrf) const;

    void nothing() const;
    void withholdClaims();
    void followAddresses();
    void paths();
    Nav::SiteGroupKey owner(const Nav::PathKey& key, const std::set<Claim>& effective,
                            const std::set<Claim>& withheld) const;
    void path(const Nav::PathKey& key, const VrfName& vrf, const std::set<Claim>& effective,
              const std::set<Claim>& withheld);
    void database() const;
    void vrfMaps() const;
    void sites() const;
    void statuses() const;
    void resolution(const Nav::PathKey& key, const Live& path, const Status& got,
                    const Status* was) const;
    std::vector<Shard::Fib::Via> viasFor(const Nav::PathKey& key, const Live& path,
                                         const Status* was) const;
    std::set<U32> encapIdsFor(const Nav::PathKey& key, const Live& path, const Status* was) const;
    std::set<bool> programmedFor(const Nav::PathKey& key, const Live& path,
                                 const Status* was) const;
    void siteGroups() const;
    void nexthops() const;
    void requests() const;
    void reconcile();
    void rules() const;
    void classification() const;
    void balances();
    void balancesOver(const Published& before) const;
    void vanishedSites(const Published& before);
    bool keepsRules(const Published& before, U32 vrfId) const;
    const Nav::NavRuleEntry* governing(U32 vrfId, U32 appId, const String& group) const;

    Inputs last_, now_;
    Published before_, seen_;
    bool fresh_ = false, settled_ = true;

    Claims claims_, effectiveBefore_;
    std::set<IpGenAddr> claimants_;      // sites that may have had a path for a moment
    std::map<IpGenAddr, U64> vanished_;  // sites without a site group, with the check that saw it
    U64 checks_ = 0;
    std::set<std::pair<Nav::PathKey, Claim>> withheld_;  // the group's profile was cleared
    std::set<std::pair<Nav::PathKey, Claim>> withheldBefore_;
    std::map<std::pair<IpGenAddr, VrfName>, std::set<IntfId>> intfsOf_;
    std::map<Nav::PathKey, Live> live_;
    std::map<VrfName, Policy> reconciled_;  // the policy as it was at the VRF's last reconciliation
};

}  // namespace Oracle

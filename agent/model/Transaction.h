// A change of the running configurations, of path selection and of forwarding: copies are changed
// and validated, then applied together or not at all. Requests, files and signals all change the
// configuration this way; on the event thread, one transaction at a time.
//
// Invariants:
// - Until apply() the running configuration is unchanged, and a transaction may be discarded.
// - The published state depends only on the configuration, not on the steps that led to it (except
//   for ids, indices and generations): where a reactor would keep state that a fresh start would
//   not have, apply() removes and restores the entry.
// - If the running and the wanted configuration each respect the limits of paths and load-balance
//   ids, so does every intermediate state.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "agent/model/Config.h"
#include "agent/model/Difference.h"
#include "agent/model/IpsecConfig.h"

namespace Agent {

// The configurations that an agent runs with. Forwarding is null where the agent does not forward,
// IPsec where it has no IPsec service.
struct RunningConfig {
    RunningConfig(Nav::NavCliConfig& paths, ForwardingConfig* forwarding = nullptr,
                  IpsecConfig* ipsec = nullptr)
        : paths(paths), forwarding(forwarding), ipsec(ipsec) {}

    Nav::NavCliConfig& paths;
    ForwardingConfig* const forwarding;
    IpsecConfig* const ipsec;
};

// The configurations to apply, not shared with any other user; null: unchanged.
struct WantedConfig {
    ConfigPtr paths = nullptr;
    ForwardingPtr forwarding = nullptr;
    IpsecPtr ipsec = nullptr;  // only where one is running
};

class Transaction {
  public:
    // A configuration that is not given starts as a copy of the running one; tree() changes it.
    // Throws TreeError if a forwarding configuration is given and the agent does not forward.
    explicit Transaction(const RunningConfig& running, WantedConfig wanted = {});

    Tree& tree() { return tree_; }
    // The configurations as they would be; null: none, or unchanged. Not to be changed.
    WantedConfig wanted() const { return {wanted_, wantedForwarding_, wantedIpsec_}; }
    // What apply() would change, except that it may raise versions.
    std::vector<Difference> differences() const;

    // Throws TreeError if a configuration is invalid; returns warnings, a sentence each.
    std::vector<std::string> check(const Ip::Status* interfaces) const;

    // Makes the running configurations equal to the wanted ones with the least changes, removals
    // before additions. A new entry is complete before it is announced. The feature is switched off
    // first, or on last.
    //
    // `configVersion` tells the reactors that a policy is complete, so it only increases: if a
    // policy's rules or default change and the wanted version is not higher, the version becomes
    // the running one plus one; if nothing else changes, a lower version is ignored.
    //
    // REQUIRES: check() has passed, and the transaction has not been applied.
    void apply();

  private:
    void settleVersions();
    void stepAside();
    std::set<std::string> replacedPolicies() const;
    std::set<L3::VrfName> bindingsInTheWay(const std::set<std::string>& replaced) const;
    void settleProfiles();

    Nav::NavCliConfig& running_;
    const ConfigPtr wanted_;
    ForwardingConfig* const runningForwarding_;  // both null if the agent does not forward
    const ForwardingPtr wantedForwarding_;
    IpsecConfig* const runningIpsec_;  // null without an IPsec service
    const IpsecPtr wantedIpsec_;       // null: as it is
    Tree tree_;
};

}  // namespace Agent

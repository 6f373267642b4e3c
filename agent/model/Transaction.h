// A change of the running configurations, of path selection and of forwarding: copies are changed,
// checked whole, and applied together or not at all. The one way in for requests, files and
// signals; on the event thread, one at a time.
//
// What always holds:
// - Until apply() the running configuration is untouched, and a transaction may be dropped.
// - The published state depends on the configuration alone, not on the steps that led to it (ids,
//   indices and generations apart): where a reactor would keep something that a fresh start would
//   not have, apply() takes the entry away and puts it back.
// - If running and wanted configuration each fit the limits of paths and load-balance ids, so does
//   every state in between.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "agent/model/Config.h"

namespace Agent {

// The configurations that an agent runs with. Forwarding is null where the agent does not forward.
struct RunningConfig {
    RunningConfig(Nav::NavCliConfig& paths, ForwardingConfig* forwarding = nullptr)
        : paths(paths), forwarding(forwarding) {}

    Nav::NavCliConfig& paths;
    ForwardingConfig* const forwarding;
};

// What they are to become, used by nobody else; null: as they are.
struct WantedConfig {
    ConfigPtr paths = nullptr;
    ForwardingPtr forwarding = nullptr;
};

class Transaction {
  public:
    // What is not wanted otherwise is a copy of what runs, to be changed through tree(). Throws
    // TreeError if a configuration of forwarding is wanted and the agent does not forward.
    explicit Transaction(const RunningConfig& running, WantedConfig wanted = {});

    Tree& tree() { return tree_; }

    // Refuses configurations that are not valid (TreeError); returns warnings, a sentence each.
    std::vector<std::string> check(const Ip::Status* interfaces) const;

    // Makes the running configurations equal to the wanted ones by the changes that this takes and
    // no others, removals before additions. A new entry is announced whole. The feature is switched
    // off first or on last.
    //
    // `configVersion` is how the reactors learn that a policy is complete, so it only grows: when a
    // policy's rules or default change and the wanted version is not above the running one, it
    // becomes the running one plus one; when nothing else changes, a lower version is ignored.
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
    Tree tree_;
};

}  // namespace Agent

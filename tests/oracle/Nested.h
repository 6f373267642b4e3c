// One change made from within a notification of another, held against the two made one after the
// other in either order.
#pragma once

#include <optional>

#include "tests/oracle/Observer.h"
#include "tests/oracle/State.h"

namespace Oracle {

// What is published and recorded, a line each, but for what the order of changes decides: indices,
// ids, generations and versions; and what is left of VRFs that no reactor resolves, of VRF ids that
// were withdrawn and of load-balance keys that no rule wants.
class Outcome {
  public:
    explicit Outcome(const World& world);
    Outcome() = default;  // of changes that run out of indices
    bool ranOut() const { return lines_.empty(); }
    const std::set<std::string>& lines() const { return lines_; }
    // Whether the router's configuration and state are the same, services' answers aside.
    bool hasInputsOf(const Outcome& other) const { return inputs_ == other.inputs_; }

  private:
    static std::set<std::string> wantedKeys(const Inputs& in, const Nav::NavInputs& published);
    void nameIndex(std::string& text, size_t at) const;

    std::map<std::string, std::string> names_;  // of the path that has each index
    std::set<std::string> lines_;
    Inputs inputs_;
};

// Two changes of a world, which stays as it is. With services, the router's services are part of
// the process.
class Pair {
  public:
    Pair(const World& base, bool services, Event outer, Event inner)
        : base_(base), services_(services), outer_(std::move(outer)), inner_(std::move(inner)) {}

    // Makes the inner change at a notification of the outer one, counted from 1, before or after
    // the reactors are told. Returns what is wrong then, empty if nothing is, nothing if there are
    // fewer notifications.
    std::optional<std::string> run(size_t position, bool before);

  private:
    class Copy;

    std::string wrong(const Outcome& outcome);

    const World& base_;
    const bool services_;
    const Event outer_, inner_;
    std::optional<Outcome> inOrder_, reversed_;
};

}  // namespace Oracle

// A second path selection, over copies of the agent's inputs and with any configuration: what path
// selection makes of them without a past. Nothing of the running agent is changed.
//
// Building it takes longer than path selection takes to start.
#pragma once

#include "nav/root/NavRootSm.h"

namespace Agent {

class Replica {
  public:
    // `database`: /navDb of the agent; null while path selection is switched off. A path that the
    // agent has too is in the same state as there; no service answers for the other paths.
    Replica(const Nav::NavInputs& inputs, const Nav::NavDb* database,
            const Nav::NavCliConfig& config);
    ~Replica();
    Replica(const Replica&) = delete;
    Replica& operator=(const Replica&) = delete;

    const Nav::NavInputs& inputs() const { return inputs_; }
    const Nav::NavDb* database() const;

  private:
    const Nav::NavInputs inputs_;
    Vel::Ptr<Nav::NavRootSm> root_;
};

}  // namespace Agent

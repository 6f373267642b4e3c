// The handler of show-command requests: picks the answer by the command's word.
//
// Owned by the root, which it refers back to until the root lets it go; called by the reactor over
// the request directory, once per request.
#pragma once

#include "nav/Export.h"
#include "platform/services/AgentCommand.h"

namespace Nav {

class NavRootSm;

class NAV_EXPORT CliCallback final : public Agent::AgentCommandCallback {
  public:
    CliCallback(Vel::Name name, Vel::String commandType, NavRootSm& navRootSm)
        : name_(std::move(name)), commandType_(std::move(commandType)), navRootSm_(&navRootSm) {}

    const Vel::Name& name() const { return name_; }
    const Vel::String& commandType() const { return commandType_; }

    // Writes one answer to the descriptor. Only the first eight characters of the command count;
    // an unknown command gets no answer, one before the root is initialised a refusal.
    void handleCommand(Vel::U32 socket, const Vel::String& command) override;
    void navRootSmDel() { navRootSm_ = nullptr; }

  private:
    const Vel::Name name_;
    const Vel::String commandType_;
    NavRootSm* navRootSm_;
};

}  // namespace Nav

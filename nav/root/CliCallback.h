// The handler of show-command requests: selects the answer by the command word.
//
// Owned by the root, to which it keeps a reference until the root releases it; called by the
// reactor over the request directory, once per request.
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

    // Writes one answer to the descriptor. Only the first eight characters of the command are
    // compared. An unknown command gets no answer; before the root is initialised the answer says
    // so.
    void handleCommand(Vel::U32 socket, const Vel::String& command) override;
    void navRootSmDel() { navRootSm_ = nullptr; }

  private:
    const Vel::Name name_;
    const Vel::String commandType_;
    NavRootSm* navRootSm_;
};

}  // namespace Nav

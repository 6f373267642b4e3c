// Show-command requests: an agent turns each connection of its command socket into an entry of a
// request directory; the reactor over the directory makes one call of a callback for each entry;
// the callback writes the answer straight to the request's descriptor.
#pragma once

#include "platform/vel/Reactor.h"

namespace Agent {

class VEL_EXPORT AgentCommandRequest : public Vel::Entity {
    VEL_ENTITY(AgentCommandRequest, Vel::Name, name)
    VEL_ATTRIBUTE(Vel::U32, socket, 0)
    VEL_ATTRIBUTE(Vel::String, command, {})
    VEL_ATTRIBUTE(bool, answered, false)  // set before the callback is called
};

}  // namespace Agent

namespace Vel {

class VEL_EXPORT Dir : public Entity {
    VEL_ENTITY(Dir, Name, name)
    VEL_COLLECTION(Name, Agent::AgentCommandRequest, request)
};

}  // namespace Vel

namespace Agent {

class VEL_EXPORT AgentCommandCallback : public Vel::Object {
  public:
    // Answers one request before it returns.
    virtual void handleCommand(Vel::U32 socket, const Vel::String& command) = 0;
};

// Calls the callback once for each request, for those present at the start and for later ones.
class VEL_EXPORT AgentCommandRequestDirSm : public Vel::Reactor {
  public:
    static constexpr std::string_view name = "Agent::AgentCommandRequestDirSm";
    struct Inputs {
        Vel::Input<Vel::Dir> navCliRequestDir;
    };

    explicit AgentCommandRequestDirSm(const Inputs& inputs);
    const Inputs& inputs() const { return in_; }

    // Sets the callback. Until then, requests wait in the directory.
    void callbackIs(Vel::Ptr<AgentCommandCallback> callback) { callback_ = std::move(callback); }
    void handleCommandDir();
    void handleRequest(const Vel::Name& request);

  private:
    Inputs in_;
    Vel::Subscription requests_;
    Vel::Ptr<AgentCommandCallback> callback_;
};
VEL_INPUTS(AgentCommandRequestDirSm::Inputs, navCliRequestDir)

}  // namespace Agent

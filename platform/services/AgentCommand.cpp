#include "platform/services/AgentCommand.h"

namespace Agent {

AgentCommandRequestDirSm::AgentCommandRequestDirSm(const Inputs& inputs)
    : in_(inputs),
      requests_(Vel::Subscription::to<&AgentCommandRequestDirSm::handleRequest>(
          *in_.navCliRequestDir, Vel::Dir::requestAttr, this)) {}

void AgentCommandRequestDirSm::handleCommandDir() {
    for (AgentCommandRequest& request : in_.navCliRequestDir->request())
        handleRequest(request.name());
}

void AgentCommandRequestDirSm::handleRequest(const Vel::Name& name) {
    AgentCommandRequest* request = in_.navCliRequestDir->request(name);
    if (!request || request->answered() || !callback_) return;
    request->answeredIs(true);
    callback_->handleCommand(request->socket(), request->command());
}

}  // namespace Agent

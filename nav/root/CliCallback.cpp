#include "nav/root/CliCallback.h"

#include <sys/socket.h>

#include "nav/root/NavRootSm.h"
#include "nav/root/RootTrace.h"
#include "nav/root/ShowText.h"

namespace Nav {

void CliCallback::handleCommand(Vel::U32 socket, const Vel::String& command) {
    DUOLOG_ENTRY(rootTrace, " socket ", socket, " command ", command);
    if (!navRootSm_) return;
    // Makes room for a long answer, beyond the system's limit where permitted.
    const int sendBuffer = 20971520;
    ::setsockopt(static_cast<int>(socket), SOL_SOCKET, SO_SNDBUFFORCE, &sendBuffer,
                 sizeof sendBuffer);
    if (!navRootSm_->initialized()) {
        sendText(socket, "% NavRootSm is not initialized\n");
        return;
    }
    const std::string_view word = std::string_view(command).substr(0, 8);
    if (word == "NAVPATHS")
        navRootSm_->showNavPaths(socket);
    else if (word == "NAVPEERS")
        navRootSm_->getNavPeers(socket);
    else if (word == "NAVMAPPI")
        navRootSm_->getNavMappings(socket);
}

}  // namespace Nav

// The requests of the control socket, carried out on a host. On the event thread; outlives the
// server that calls it.
//
// On platforms other than manual a change of /cliConfig is tried on a copy first, so that no single
// request can bring the system to its limits.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "agent/Config.h"
#include "agent/ControlServer.h"
#include "agent/Host.h"
#include "agent/Watch.h"

namespace Agent {

class Control final : public RequestHandler {
  public:
    // A session may watch this many paths.
    static constexpr size_t maxWatches = 64;

    explicit Control(Host& host);

    Answer handle(const std::string& op, const Json& request, Session& session) override;
    void sessionClosed(Session& session) override { watches_.erase(&session); }

    // Makes the configuration the running one and returns the warnings about it.
    std::vector<std::string> load(ConfigPtr wanted);

  private:
    Answer get(const Json& request, Session& session);
    Answer set(const Json& request, Session& session);
    Answer del(const Json& request, Session& session);
    Answer loadRequest(const Json& request, Session& session);
    Answer check(const Json& request, Session& session);
    Answer show(const Json& request, Session& session);
    Answer watch(const Json& request, Session& session);
    Answer trace(const Json& request, Session& session);
    Answer ping(const Json& request, Session& session);

    Answer change(const std::string& path, const std::function<void(Tree&)>& make);
    void handleNavConfigured();

    Host& host_;
    std::map<Session*, std::vector<std::unique_ptr<Watch>>> watches_;
    Vel::Subscription navConfigured_;
};

}  // namespace Agent

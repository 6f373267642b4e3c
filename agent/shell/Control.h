// The requests of the control socket, executed on a running agent. Used on the event thread;
// outlives the server that calls it.
//
// On platforms other than manual every change of /cliConfig and /forwardingConfig is a transaction;
// on manual, set and del write only the tree.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/model/Watch.h"
#include "agent/shell/Configuration.h"
#include "agent/shell/ControlServer.h"
#include "agent/shell/Events.h"

namespace Agent {

// The agent that the requests act on.
struct Controlled {
    Tree& tree;
    Configuration& configuration;
    Events& events;        // where changes of the configuration are recorded
    std::string platform;  // the platform's name
    bool manual;           // whether the platform leaves every input to the requests
    // The library's answer to a show command; empty for an unknown word.
    std::function<std::string(const std::string& word)> show;
    // What the platform forwards; nothing if it does not forward.
    std::function<std::optional<Json>()> forwarding = [] { return std::optional<Json>(); };
    // Makes the function that computes what a change of the configuration would do to paths and
    // traffic.
    std::function<std::function<Json()>(std::shared_ptr<const Transaction>)> foresee;
    // Requests that only read, by their "op"; each makes the value of its answer from the request.
    std::map<std::string, std::function<Json(const Json& request)>> reports{};
    // The same of those that take long: made in a copy of the process, see ProcessCopy.
    std::map<std::string, std::function<Json(const Json& request)>> longReports{};
    // The configuration of the agent's own files, which it would load now; null without files.
    std::function<std::optional<WantedConfig>()> files = [] {
        return std::optional<WantedConfig>();
    };
};

class Control final : public RequestHandler {
  public:
    // The largest number of paths that one session may watch.
    static constexpr size_t maxWatches = 64;

    explicit Control(Controlled agent);

    Answer handle(const std::string& op, const Json& request, Session& session) override;
    void sessionClosed(Session& session) override { watches_.remove(session); }

  private:
    Answer get(const Json& request, Session& session);
    Answer set(const Json& request, Session& session);
    Answer del(const Json& request, Session& session);
    Answer load(const Json& request, Session& session);
    Answer check(const Json& request, Session& session);
    Answer save(const Json& request, Session& session);
    Answer diff(const Json& request, Session& session);
    Answer confirm(const Json& request, Session& session);
    Answer history(const Json& request, Session& session);
    Answer show(const Json& request, Session& session);
    Answer forwarding(const Json& request, Session& session);
    Answer watch(const Json& request, Session& session);
    Answer trace(const Json& request, Session& session);
    Answer log(const Json& request, Session& session);
    Answer ping(const Json& request, Session& session);
    Answer events(const Json& request, Session& session);

    Answer perform(const std::string& op, const Json& request, Session& session);
    Answer edit(const Json& request, const Session& session,
                const std::function<void(Tree&, const std::string& path)>& make);
    Answer foresee(WantedConfig wanted) const;
    WantedConfig wantedBy(const Json& request) const;
    void record(const std::string& text, const std::string& cause, const Session& session);

    const Controlled agent_;
    Watches watches_;
    Vel::Subscription navConfigured_;
};

}  // namespace Agent

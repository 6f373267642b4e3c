#include "agent/HostAgent.h"

#include <unistd.h>

#include <csignal>
#include <iostream>

#include "platform/trace/Facility.h"

namespace Agent {

namespace {

// The requester of what the agent asks of itself.
class NoSession : public Session {
  public:
    void sendEvent(const Json&) override {}
};

}  // namespace

HostAgent::HostAgent(Options options)
    : options_(std::move(options)),
      scheduler_(clock_),
      runDir_(options_.runDir.empty() ? defaultRunDir() : options_.runDir),
      loop_(scheduler_),
      terminated_(loop_.onSignal(SIGTERM, [this] { loop_.stop(); })),
      interrupted_(loop_.onSignal(SIGINT, [this] { loop_.stop(); })),
      hungUp_(loop_.onSignal(SIGHUP, [this] { reload(); })),
      commands_(loop_, runDir_.path() + "/" + commandSocketName, [](int, const std::string&) {}),
      control_(loop_, runDir_.path() + "/" + controlSocketName, *this) {
    Duolog::levelIs("*", options_.logLevel);
    loadFile();
}

HostAgent::~HostAgent() = default;

void HostAgent::reload() {
    try {
        loadFile();
    } catch (const std::exception& error) {
        std::cerr << "nav-agent: " << error.what() << std::endl;
    }
}

void HostAgent::loadFile() {
    if (options_.config.empty()) return;
    std::string text;
    try {
        text = readFile(options_.config);
        NoSession self;
        const Answer answer = handle("load", {{"op", "load"}, {"value", parseJson(text)}}, self);
        for (const std::string& warning : answer.warnings) {
            std::cerr << "nav-agent: " << options_.config << ": warning: " << warning << std::endl;
        }
    } catch (const PlacedError& error) {
        throw RequestError(options_.config + ": line " +
                           std::to_string(lineOf(text, error.place())) + ": " + error.what());
    } catch (const std::exception& error) {
        throw RequestError(options_.config + ": " + error.what());
    }
}

Answer HostAgent::handle(const std::string& op, const Json&, Session&) {
    if (op == "ping") {
        return Json{{"version", NAV_VERSION}, {"platform", options_.platform}, {"pid", getpid()}};
    }
    throw RequestError("op: \"" + op + "\" is unknown");
}

void HostAgent::sessionClosed(Session&) {}

}  // namespace Agent

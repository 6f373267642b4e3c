#include "agent/host/HostAgent.h"

#include <unistd.h>

#include <csignal>

#include "agent/linux/LinuxPlatform.h"
#include "agent/shell/AgentTrace.h"
#include "agent/sim/SimPlatform.h"

namespace Agent {

namespace {

// The platform that the options name. The loop outlives it.
std::unique_ptr<Platform> makePlatform(const Options& options, EventLoop& loop,
                                       ForwardingPtr forwarding, IpsecPtr ipsec) {
    if (options.platform == "sim") return std::make_unique<Sim::SimPlatform>(options.world);
    if (options.platform == "linux")
        return std::make_unique<Linux::LinuxPlatform>(
            loop, Linux::LinuxOptions{std::move(forwarding), std::move(ipsec), options.charon,
                                      options.keepForwarding, options.runDir});
    return std::make_unique<Platform>(options.platform);
}

MetricsPort metricsPort(const Options& options) {
    if (options.metrics.empty()) return {};
    return {options.metrics, readToken(options.metricsToken)};
}

// What `read` makes of a file; null if there is no file.
template <class Read>
auto readIn(const std::string& file, Read read) -> decltype(read(file)) {
    if (file.empty()) return nullptr;
    try {
        return read(file);
    } catch (const JsonError& error) {
        throw JsonError(file + ": " + error.what());
    }
}

}  // namespace

HostAgent::HostAgent(Options options, Log& log)
    : options_(std::move(options)),
      scheduler_(Vel::make<Vel::Scheduler>(clock_)),
      runDir_(options_.runDir, options_.group),
      loop_(*scheduler_),
      logInLoop_(log, loop_),
      terminated_(loop_.onSignal(SIGTERM, [this] { stop("SIGTERM"); })),
      interrupted_(loop_.onSignal(SIGINT, [this] { stop("SIGINT"); })),
      replaced_(loop_.onSignal(SIGUSR1,
                               [this] {
                                   host_.platform().keepForwarding();
                                   stop("SIGUSR1");
                               })),
      hungUp_(loop_.onSignal(SIGHUP, [this] { reload(); })),
      forwarding_(options_.forwarding.empty() ? nullptr : makeForwarding()),
      ipsec_(options_.ipsec.empty() ? nullptr : makeIpsec()),
      host_(*scheduler_, makePlatform(options_, loop_, forwarding_, ipsec_), forwarding_, ipsec_,
            options_.events, options_.history),
      fib_(*host_.inputs().forwardingStatus, Shard::Namespace(runDir_.path()), "fib", *scheduler_),
      fib6_(*host_.inputs().forwarding6Status, Shard::Namespace(runDir_.path()), "fib6",
            *scheduler_),
      hooks_(loop_, options_.hook, std::chrono::seconds(options_.hookTimeout)),
      requests_(controlled()),
      commands_(loop_, runDir_.path() + "/" + commandSocketName,
                [this](const std::string& word) { return host_.show(word); }),
      control_(loop_, runDir_.path() + "/" + controlSocketName, requests_),
      metrics_(
          loop_, runDir_.path(), metricsPort(options_),
          {host_.inputs(), host_.platform(), host_.observer(), [this] { return host_.database(); },
           host_.events(), loop_, log, hooks_, std::chrono::system_clock::now(), nullptr}),
      manager_(loop_, [this] { return host_.summary(); }) {
    DUOLOG(agentTrace, 5, "nav-agent ", NAV_VERSION, " started, platform ", options_.platform,
           ", pid ", getpid(), ", run directory ", runDir_.path());
    host_.events().add({Event::Kind::agent, "nav-agent", "started, version " NAV_VERSION, {}, {}});
    if (!options_.hook.empty())
        host_.observer().hookIs(
            [this](Transition transition) { hooks_.add(std::move(transition)); });
    try {
        loadFirst();
    } catch (...) {
        // What an earlier agent has left goes on forwarding.
        host_.platform().keepForwarding();
        throw;
    }
    manager_.ready();
}

HostAgent::~HostAgent() {
    DUOLOG(agentTrace, 5, "nav-agent stopped");
}

void HostAgent::stop(const char* signal) {
    DUOLOG(agentTrace, 5, "stopping on ", signal);
    host_.events().add({Event::Kind::agent, "nav-agent", "stops", {}, signal});
    manager_.stopping();
    loop_.stop();
}

void HostAgent::reload() {
    DUOLOG(agentTrace, 5, "reload on SIGHUP",
           options_.config.empty() && !forwarding_ ? ": no configuration file was given" : "");
    manager_.reloading();
    try {
        loadFiles("SIGHUP");
    } catch (const std::exception& error) {
        host_.events().add({Event::Kind::configuration, "configuration", "reload refused",
                            error.what(), "SIGHUP"});
        DUOLOG(agentTrace, 3, "configuration refused: ", LongText{error.what()});
    }
    manager_.ready();
}

Controlled HostAgent::controlled() {
    Controlled controlled = host_.controlled();
    controlled.files = [this]() -> std::optional<WantedConfig> {
        if (options_.config.empty() && options_.forwarding.empty()) return {};
        return readFiles();
    };
    return controlled;
}

WantedConfig HostAgent::readFiles() const {
    WantedConfig wanted;
    wanted.paths =
        readIn(options_.config, [](const auto& file) { return readConfigText(readFile(file)); });
    wanted.forwarding = readIn(options_.forwarding,
                               [](const auto& file) { return readForwardingText(readFile(file)); });
    wanted.ipsec = readIn(options_.ipsec, readIpsecFile);
    return wanted;
}

void HostAgent::loadFirst() {
    const auto before = host_.configuration().interrupted();
    if (!before) return loadFiles("start of the agent");
    WantedConfig wanted = host_.configuration().fromHistory(*before);
    wanted.ipsec = readIn(options_.ipsec, readIpsecFile);
    load({"entry " + std::to_string(*before) + " of " + options_.history +
              ", because the last was not confirmed before the stop",
          "start of the agent"},
         std::move(wanted));
}

void HostAgent::loadFiles(const char* author) {
    std::string files;
    for (const std::string& file : {options_.config, options_.forwarding, options_.ipsec})
        if (!file.empty()) files += (files.empty() ? "" : " and ") + file;
    if (!files.empty()) load({files, author}, readFiles());
}

void HostAgent::load(const Change& change, WantedConfig wanted) {
    const Change entry{"loaded from " + change.text, change.author};
    for (const std::string& warning : host_.configuration().load(entry, std::move(wanted)))
        DUOLOG(agentTrace, 4, change.text, ": warning: ", LongText{warning});
    DUOLOG(agentTrace, 5, "configuration ", entry.text);
    host_.events().add({Event::Kind::configuration, "configuration", entry.text, {}, entry.author});
}

}  // namespace Agent

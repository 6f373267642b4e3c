#include "agent/host/HostAgent.h"

#include <csignal>
#include <iostream>

#include "agent/linux/LinuxPlatform.h"
#include "agent/sim/SimPlatform.h"

namespace Agent {

namespace {

// The platform that the options name. The loop outlives it.
std::unique_ptr<Platform> makePlatform(const Options& options, EventLoop& loop) {
    if (options.platform == "sim") return std::make_unique<Sim::SimPlatform>(options.world);
    if (options.platform == "linux") return std::make_unique<Linux::LinuxPlatform>(loop);
    return std::make_unique<Platform>(options.platform);
}

}  // namespace

HostAgent::HostAgent(Options options)
    : options_(std::move(options)),
      scheduler_(Vel::make<Vel::Scheduler>(clock_)),
      runDir_(options_.runDir),
      loop_(*scheduler_),
      terminated_(loop_.onSignal(SIGTERM, [this] { loop_.stop(); })),
      interrupted_(loop_.onSignal(SIGINT, [this] { loop_.stop(); })),
      hungUp_(loop_.onSignal(SIGHUP, [this] { reload(); })),
      host_(*scheduler_, makePlatform(options_, loop_)),
      requests_(host_.controlled()),
      commands_(loop_, runDir_.path() + "/" + commandSocketName,
                [this](const std::string& word) { return host_.show(word); }),
      control_(loop_, runDir_.path() + "/" + controlSocketName, requests_) {
    const Shard::Namespace space(runDir_.path());
    host_.inputs().forwardingStatus->mountIs(space, *scheduler_);
    host_.inputs().forwarding6Status->mountIs(space, *scheduler_);
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
    const std::string& file = options_.config;
    if (file.empty()) return;
    try {
        for (const std::string& warning : requests_.load(readConfigText(readFile(file))))
            std::cerr << "nav-agent: " << file << ": warning: " << warning << std::endl;
    } catch (const JsonError& error) {
        throw JsonError(file + ": " + error.what());
    }
}

}  // namespace Agent

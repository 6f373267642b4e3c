#include <unistd.h>

#include <CLI/CLI.hpp>
#include <exception>

#include "agent/base/RunDir.h"
#include "agent/host/HostAgent.h"
#include "agent/host/Postmortem.h"
#include "agent/linux/forwarding/Forwarding.h"
#include "agent/shell/Log.h"

int main(int argc, char** argv) {
    Agent::Options options;
    CLI::App app("Chooses the paths of this router's wide-area overlay", "nav-agent");
    app.set_version_flag("--version", NAV_VERSION);
    app.add_option("--config", options.config, "Configuration to load at start and on SIGHUP")
        ->type_name("FILE");
    app.add_option("--forwarding", options.forwarding,
                   "Forward by the decisions: configuration to load with --config, for linux")
        ->type_name("FILE");
    app.add_option("--ipsec", options.ipsec,
                   "Secure paths by charon: IPsec profiles to load with --forwarding, for linux")
        ->type_name("FILE");
    app.add_option("--charon", options.charon, "The VICI socket of charon")
        ->type_name("SOCKET")
        ->default_val("/run/charon.vici");
    app.add_flag("--keep-forwarding", options.keepForwarding,
                 "An orderly stop leaves the kernel forwarding as it is, for linux");
    bool removeForwarding = false;
    app.add_flag("--remove-forwarding", removeForwarding,
                 "Remove what an agent has left in the kernel, and exit");
    app.add_option("--platform", options.platform, "The source of the router's other services")
        ->check(CLI::IsMember({"sim", "linux", "manual"}))
        ->capture_default_str();
    app.add_option("--world", options.world, "The simulated router and network, for sim")
        ->type_name("FILE");
    app.add_option("--run-dir", options.runDir,
                   "The directory of the sockets: /run/nav for root, else $XDG_RUNTIME_DIR/nav")
        ->type_name("DIR");
    app.add_option(
           "--group", options.group,
           "Group that may read, but change nothing; the run directory gets it and mode 0750")
        ->type_name("NAME");
    app.add_option("--events", options.events, "Keep the events across restarts in this file")
        ->type_name("FILE");
    app.add_option("--history", options.history,
                   "Keep the last configurations across restarts in this file, of mode 0600")
        ->type_name("FILE");
    app.add_option("--hook", options.hook,
                   "Program to run at each transition of a path, a site or an application")
        ->type_name("PROGRAM");
    app.add_option("--hook-timeout", options.hookTimeout, "How long it may run, in seconds")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    app.add_option("--metrics", options.metrics,
                   "Serve the metrics on this address and port, too: 127.0.0.1:9473")
        ->type_name("ADDRESS:PORT");
    app.add_option("--metrics-token", options.metricsToken,
                   "File of mode 0600 with the token that is required there")
        ->type_name("FILE");
    app.add_option("--log-level", options.logLevel,
                   "Trace levels up to this one are logged, of all facilities")
        ->check(CLI::Range(0, 8))
        ->capture_default_str();
    try {
        app.parse(argc, argv);
        if (!options.world.empty() && options.platform != "sim") {
            throw CLI::ValidationError("--world", "requires --platform sim");
        }
        if (!options.forwarding.empty() && options.platform != "linux") {
            throw CLI::ValidationError(
                "--forwarding", "--platform " + options.platform +
                                    " has no kernel to forward by; only --platform linux forwards");
        }
        if (options.metrics.empty() != options.metricsToken.empty())
            throw CLI::ValidationError("--metrics", "requires --metrics-token, and vice versa");
        if (!options.ipsec.empty() && options.forwarding.empty())
            throw CLI::ValidationError("--ipsec", "--forwarding is required");
        if (options.keepForwarding && options.forwarding.empty())
            throw CLI::ValidationError("--keep-forwarding", "--forwarding is required");
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    Duolog::levelIs("*", options.logLevel);
    Agent::Log log(STDERR_FILENO);
    try {
        if (options.runDir.empty()) options.runDir = Agent::defaultRunDir();
        if (removeForwarding) {
            const Agent::RunDir noOtherAgent(options.runDir, options.group);
            Agent::Linux::removeForwarding();
            return 0;
        }
        Agent::postmortemIs(options.runDir, log);
        Agent::HostAgent(options, log).run();
        return 0;
    } catch (const std::exception& error) {
        log.write(3, std::string("nav-agent: ") + error.what());
        return 1;
    }
}

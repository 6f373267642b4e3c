// The host agent: the process that owns the run directory, the event thread, the task scheduler and
// the two sockets, from start to orderly stop. One per process; created and run by main.
#pragma once

#include <string>

#include "agent/base/RunDir.h"
#include "agent/host/Host.h"
#include "agent/metrics/MetricsServer.h"
#include "agent/shell/CommandServer.h"
#include "agent/shell/Control.h"
#include "agent/shell/ControlServer.h"
#include "agent/shell/EventLoop.h"
#include "agent/shell/Hooks.h"
#include "agent/shell/Log.h"
#include "agent/shell/ServiceManager.h"
#include "platform/shard/SharedFib.h"

namespace Agent {

struct Options {
    std::string config;            // file to load at start and on SIGHUP; none if empty
    std::string forwarding;        // the same, of the forwarding; if empty, the agent only decides
    std::string ipsec;             // the same, of its IPsec profiles; if empty, no path is secured
    std::string charon;            // charon's VICI socket
    bool keepForwarding = false;   // at an orderly stop
    std::string platform = "sim";  // provides the router's other services
    std::string world;             // file that describes the simulated router; none if empty
    std::string runDir;            // not empty: main uses defaultRunDir() by default
    std::string events;            // file that keeps the events across restarts; none if empty
    std::string history;           // the same of the last configurations
    std::string group;             // its members may read, but change nothing; none if empty
    std::string hook;              // program to run at each transition; none if empty
    unsigned hookTimeout = 10;     // seconds that it may run; set by main
    std::string metrics;           // address and port of the metrics; none if empty
    std::string metricsToken;      // file with the token that collectors on that port must have
    int logLevel = 5;              // of the trace; set by main
};

class HostAgent {
  public:
    // Takes the run directory, creates the host, opens the sockets and loads the configuration.
    // Throws an error, which main prints, if that is not possible.
    HostAgent(Options options, Log& log);
    ~HostAgent();

    // Runs until SIGTERM, SIGINT or SIGUSR1. After the last the kernel goes on forwarding, for the agent
    // that is started next.
    void run() { loop_.run(); }

  private:
    // The configuration of the files; throws with the file's name, the line and the reason.
    WantedConfig readFiles() const;
    // Makes of the configuration files what a load request would; throws when one is refused, which
    // leaves everything as it was.
    void loadFiles(const char* author);
    // The same at the start, unless the last agent stopped with an unconfirmed configuration.
    void loadFirst();
    void load(const Change& change, WantedConfig wanted);
    Controlled controlled();
    void reload();
    void stop(const char* signal);

    const Options options_;
    Loom::MonotonicClock clock_;
    const Vel::Ptr<Vel::Scheduler> scheduler_;
    RunDir runDir_;
    EventLoop loop_;
    const LogInLoop logInLoop_;
    EventLoop::Registration terminated_, interrupted_, replaced_, hungUp_;
    const ForwardingPtr forwarding_;  // null unless the agent forwards
    const IpsecPtr ipsec_;            // null unless it secures paths
    Host host_;
    Shard::SharedFib<Shard::Fib::ForwardingStatus> fib_;
    Shard::SharedFib<Shard::Fib6::ForwardingStatus> fib6_;
    Hooks hooks_;
    Control requests_;
    CommandServer commands_;
    ControlServer control_;
    MetricsServer metrics_;
    ServiceManager manager_;
};

}  // namespace Agent

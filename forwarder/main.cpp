// nav-forwarder: the forwarding side of the simulated router as a separate process. It follows the
// agent's load-balance status and choice of paths over control.sock and writes traffic counters
// into the table of the agent's run directory. It outlives the agent and stops in order on SIGTERM
// and SIGINT.
#include <poll.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <iostream>
#include <optional>

#include "agent/base/RunDir.h"
#include "client/ControlClient.h"
#include "forwarder/Traffic.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr const char* statusPath = "/navStatusDir/navLbProfileStatus/lbProfileStatusEntry";

volatile sig_atomic_t stopped = 0;

// The agent's load-balance status, while an agent runs.
class StatusFollower {
  public:
    explicit StatusFollower(std::string runDir) : runDir_(std::move(runDir)) {}

    // Waits for at most that long. Returns the status if it is new.
    std::optional<Agent::Json> await(std::chrono::milliseconds patience, const sigset_t& mask) try {
        if (!watch_) {
            watch_.emplace(runDir_);
            watch_->request({{"op", "watch"}, {"path", statusPath}});
            return read();
        }
        pollfd ready{watch_->connection().descriptor(), POLLIN, 0};
        const timespec limit{patience.count() / 1000, patience.count() % 1000 * 1'000'000};
        if (ppoll(&ready, 1, &limit, &mask) != 1) return std::nullopt;
        do {
            const auto line = watch_->connection().readLine();
            if (!line || Agent::parseJson(*line).value("event", "") == "overrun") watch_.reset();
        } while (watch_ && watch_->connection().hasLine());
        return read();
    } catch (const std::exception&) {
        // No agent, or one that is stopping: the last status stays valid, and the request is
        // repeated.
        watch_.reset();
        const timespec limit{patience.count() / 1000, patience.count() % 1000 * 1'000'000};
        ppoll(nullptr, 0, &limit, &mask);
        return std::nullopt;
    }

    // The paths chosen now; nothing without an agent.
    std::optional<Agent::Json> carriers() const try {
        return Client::ControlClient(runDir_).request({{"op", "carriers"}}).at("value");
    } catch (const std::exception&) {
        return std::nullopt;
    }

  private:
    Agent::Json read() { return Client::ControlClient(runDir_).get(statusPath); }

    std::string runDir_;
    std::optional<Client::ControlClient> watch_;
};

void publish(NavShard::NavCounters& counters, const Forwarder::Traffic& traffic,
             std::set<Vel::U32>& published) {
    for (const auto& [lbId, entry] : traffic.entries()) {
        counters.lbProfileCounterIs(entry);
        published.insert(lbId);
    }
    std::erase_if(published, [&](Vel::U32 lbId) {
        if (traffic.entries().contains(lbId)) return false;
        counters.lbProfileCounterDel({lbId});
        return true;
    });
    if (counters.lbProfileCounterCommit()) return;
    // Another process damaged the table, and a new one has its name.
    for (const auto& [lbId, entry] : traffic.entries()) counters.lbProfileCounterIs(entry);
    if (counters.lbProfileCounterCommit()) counters.lbProfileCounterMounted();
}

void run(const std::string& runDir, const Forwarder::Rate& rate, std::chrono::milliseconds interval,
         const sigset_t& unblocked) {
    auto counters = NavShard::navCountersFactory("navCounters");
    counters->lbProfileCounterControlIs(
        NavShard::LbProfileCounterControl::writer(Shard::Namespace(runDir)));
    counters->lbProfileCounterDelAll();  // of an earlier forwarder, with other keys perhaps
    counters->lbProfileCounterMounted();

    StatusFollower follower(runDir);
    Forwarder::Traffic traffic(rate);
    std::set<Vel::U32> published;
    auto last = Clock::now();
    while (!stopped) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(last + interval - Clock::now());
        const auto status = follower.await(std::max(left, left.zero()), unblocked);
        const auto now = Clock::now();
        if (!status && now < last + interval) continue;
        traffic.advance(std::chrono::duration<double>(now - last).count());
        last = now;
        if (status) traffic.statusIs(status->is_object() ? *status : Agent::Json::object());
        if (const auto carriers = follower.carriers()) traffic.carriersAre(*carriers);
        publish(*counters, traffic, published);
    }
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Plays the forwarding side: writes traffic counters per load-balance id",
                 "nav-forwarder"};
    std::string runDir;
    Forwarder::Rate rate;
    unsigned interval = 250;
    app.set_version_flag("--version", NAV_VERSION);
    app.add_option("--run-dir", runDir, "The agent's run directory")->type_name("DIR");
    app.add_option("--rate", rate.packetsPerSecond, "Packets per second and load-balance id")
        ->check(CLI::Range(0.0, 1e9));
    app.add_option("--interval", interval, "Milliseconds between two updates")
        ->check(CLI::Range(10, 60000));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }

    // Signals are only delivered during the waits, so that an update is never interrupted.
    sigset_t blocked, unblocked;
    sigemptyset(&blocked);
    for (const int number : {SIGTERM, SIGINT}) {
        struct sigaction action {};
        action.sa_handler = [](int) { stopped = 1; };
        sigaction(number, &action, nullptr);
        sigaddset(&blocked, number);
    }
    signal(SIGPIPE, SIG_IGN);
    sigprocmask(SIG_BLOCK, &blocked, &unblocked);
    try {
        run(runDir.empty() ? Agent::clientRunDir() : runDir, rate,
            std::chrono::milliseconds(interval), unblocked);
    } catch (const std::exception& error) {
        std::cerr << "nav-forwarder: " << error.what() << "\n";
        return 1;
    }
    return 0;
}

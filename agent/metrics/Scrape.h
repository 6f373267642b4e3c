// One answer to a collector: the metrics of the agent in Prometheus' text format (version 0.0.4),
// written in pieces, so that the event thread serves other events between them.
//
// There is a sample for each configured path, whether it exists or not; docs/metrics.md describes
// all metrics. Paths and applications are those of the beginning of the answer; their values are
// read piece by piece.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "agent/observe/Observer.h"
#include "agent/shell/EventLoop.h"
#include "agent/shell/Hooks.h"
#include "agent/shell/Log.h"
#include "nav/counters/NavShard.h"

namespace prometheus {
struct ClientMetric;
}

namespace Agent {

// What the metrics are read from. All of it outlives every answer.
struct MetricSources {
    const Nav::NavInputs& inputs;
    const Platform& platform;
    const Observer& observer;
    std::function<const Nav::NavDb*()> database;
    const Events& events;
    const EventLoop& loop;
    const Log& log;
    const Hooks& hooks;
    WallTime started;
    Vel::Ptr<NavShard::NavCounters> counters;  // of this agent's run directory
};

class Scrape {
  public:
    // A piece is complete with the item that reaches this number of samples. With the few that one
    // item adds, a piece takes well below a millisecond.
    static constexpr size_t samplesPerPiece = 100;

    explicit Scrape(const MetricSources& sources);
    ~Scrape();
    Scrape(const Scrape&) = delete;
    Scrape& operator=(const Scrape&) = delete;

    // The next piece, which may be empty; nothing after the last one.
    std::optional<std::string> next();

  private:
    using Samples = std::vector<prometheus::ClientMetric>;
    using Labels = std::vector<std::pair<std::string, std::string>>;
    enum class Type { gauge, counter, histogram };
    // A metric: each item adds its samples, in order.
    struct Family {
        std::string name, help;
        Type type;
        size_t items;
        std::function<void(size_t item, Samples& samples)> add;
    };
    struct Path {
        Labels labels;
        Observer::PathRecord record;
        bool counted = false;
        double bitRate = 0, flows = 0;  // of all load-balance ids
    };
    struct Application {
        Labels labels;
        Nav::LbProfileKey key;
        size_t carriers;
        WallTime since;
        bool counted = false;
        uint64_t bytes = 0, packets = 0;
    };

    void takePaths();
    void takeApplications();
    void addAgent();
    void addPaths();
    void addQuality();
    void addTraffic();
    void addIds();
    void single(const char* name, const char* help, Type type, double value);
    void perPath(const char* name, const char* help, Type type,
                 std::function<void(const Path&, Samples&)> add);
    void perApplication(const char* name, const char* help, Type type,
                        std::function<void(const Application&, Samples&)> add);
    void read(Application& application);
    std::string textOf(const Family& family, Samples samples);

    const MetricSources& from_;
    std::vector<Path> paths_;
    std::map<Vel::U32, size_t> pathOf_;  // position in paths_ by path index
    std::vector<Application> applications_;
    std::vector<Family> families_;
    NavShard::NavLbProfileCounterEntry counter_;  // read last
    size_t family_ = 0, item_ = 0;                // to be written next
    bool headed_ = false;                         // the header of that family has been written
};

}  // namespace Agent

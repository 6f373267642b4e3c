#include "agent/metrics/Scrape.h"

#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <array>

#include "nav/config/NavConstants.h"

namespace Agent {

using prometheus::ClientMetric;
using Vel::U32;

namespace {

double seconds(WallTime time) {
    return std::chrono::duration<double>(time.time_since_epoch()).count();
}

ClientMetric sample(const std::vector<std::pair<std::string, std::string>>& labels, double value) {
    ClientMetric metric;
    for (const auto& [name, text] : labels) metric.label.push_back({name, text});
    metric.gauge.value = metric.counter.value =
        value;  // the family's type decides which is written
    return metric;
}

ClientMetric sample(std::vector<std::pair<std::string, std::string>> labels, const char* name,
                    const char* text, double value) {
    labels.emplace_back(name, text);
    return sample(labels, value);
}

// What a path lacks first; "up" if nothing.
const char* stateOf(const Nav::NavInputs& in, const PathState& path) {
    if (path.up) return "up";
    if (path.index == 0) return "absent";
    const Nav::PathStatusDir* vrfs = in.navStatusDir->navPathStatusDir();
    const Nav::PathStatus* vrf = vrfs ? vrfs->pathStatus(path.vrf) : nullptr;
    const Nav::PathStatusEntry* status = vrf ? vrf->pathStatusEntry(path.key) : nullptr;
    if (!status) return "absent";
    return status->pathInfo().pathState == Nav::PathState::resolved ? "unprogrammed" : "unresolved";
}

}  // namespace

Scrape::Scrape(const MetricSources& sources) : from_(sources) {
    from_.counters->lbProfileCounterUpdate();
    takePaths();
    takeApplications();
    addAgent();
    addPaths();
    addQuality();
    addTraffic();
    addIds();
}

Scrape::~Scrape() = default;

void Scrape::takePaths() {
    for (const auto& [path, record] : from_.observer.paths()) {
        if (record.state.index != 0) pathOf_[record.state.index] = paths_.size();
        paths_.push_back({{{"group", path.site.name},
                           {"interface", path.interface.stringValue()},
                           {"site", path.site.routerIp.stringValue()},
                           {"destination", path.destination.stringValue()}},
                          record});
    }
}

void Scrape::takeApplications() {
    for (const auto& [key, choice] : from_.observer.choices())
        applications_.push_back({{}, key, choice.carriers.size(), choice.since});
}

void Scrape::single(const char* name, const char* help, Type type, double value) {
    families_.push_back({name, help, type, 1, [value](size_t, Samples& samples) {
                             samples.push_back(sample({}, value));
                         }});
}

void Scrape::perPath(const char* name, const char* help, Type type,
                     std::function<void(const Path&, Samples&)> add) {
    families_.push_back({name, help, type, paths_.size(),
                         [this, add = std::move(add)](size_t item, Samples& samples) {
                             add(paths_[item], samples);
                         }});
}

void Scrape::perApplication(const char* name, const char* help, Type type,
                            std::function<void(const Application&, Samples&)> add) {
    families_.push_back({name, help, type, applications_.size(),
                         [this, add = std::move(add)](size_t item, Samples& samples) {
                             read(applications_[item]);
                             add(applications_[item], samples);
                         }});
}

void Scrape::addAgent() {
    families_.push_back(
        {"nav_agent_info", "The running agent; always 1.", Type::gauge, 1,
         [this](size_t, Samples& samples) {
             samples.push_back(
                 sample({{"version", NAV_VERSION}, {"platform", from_.platform.name()}}, 1));
         }});
    single("nav_agent_start_time_seconds", "When the agent was started.", Type::gauge,
           seconds(from_.started));
    families_.push_back(
        {"nav_events_recorded_total", "Events recorded, by kind.", Type::counter, 1,
         [this](size_t, Samples& samples) {
             for (const auto& [kind, count] : from_.events.counts())
                 samples.push_back(sample({{"kind", kind}}, static_cast<double>(count)));
         }});
    families_.push_back(
        {"nav_loop_busy_seconds",
         "How long the event thread was busy at a time; an event may have to wait for this long.",
         Type::histogram, 1, [this](size_t, Samples& samples) {
             const EventLoop::Busy& busy = from_.loop.busy();
             ClientMetric metric;
             metric.histogram.sample_sum = busy.sum;
             for (size_t i = 0; i < busy.counts.size(); ++i) {
                 metric.histogram.sample_count += busy.counts[i];
                 const bool last = i == EventLoop::Busy::bounds.size();
                 metric.histogram.bucket.push_back(
                     {metric.histogram.sample_count,
                      last ? std::numeric_limits<double>::infinity() : EventLoop::Busy::bounds[i]});
             }
             samples.push_back(metric);
         }});
    single("nav_log_lines_dropped_total", "Lines of the log that its reader did not take in time.",
           Type::counter, static_cast<double>(from_.log.dropped()));
    families_.push_back(
        {"nav_hook_runs_total", "Transitions for the hook, by what became of them.", Type::counter,
         Hooks::resultNames.size(), [this](size_t i, Samples& samples) {
             samples.push_back(
                 sample({{"result", Hooks::resultNames[i]}},
                        static_cast<double>(from_.hooks.count(static_cast<Hooks::Result>(i)))));
         }});
    families_.push_back({"nav_objects", "Entities in memory, by type.", Type::gauge, 1,
                         [](size_t, Samples& samples) {
                             for (const auto* type = Vel::TypeDescriptor::all; type;
                                  type = type->next)
                                 if (type->live != 0)
                                     samples.push_back(sample({{"type", type->name}},
                                                              static_cast<double>(type->live)));
                         }});
}

void Scrape::addPaths() {
    perPath("nav_path_up", "Whether a configured path carries traffic if it is chosen.",
            Type::gauge, [](const Path& path, Samples& samples) {
                samples.push_back(sample(path.labels, path.record.state.up));
            });
    perPath("nav_path_state", "1 for the state in which a configured path is, else 0.", Type::gauge,
            [this](const Path& path, Samples& samples) {
                const std::string_view now = stateOf(from_.inputs, path.record.state);
                for (const char* state : {"absent", "unresolved", "unprogrammed", "up"})
                    samples.push_back(sample(path.labels, "state", state, now == state));
            });
    perPath("nav_path_last_change_timestamp_seconds", "Since when the state, or its reason, holds.",
            Type::gauge, [](const Path& path, Samples& samples) {
                samples.push_back(sample(path.labels, seconds(path.record.since)));
            });
    perPath(
        "nav_path_transitions_total", "How often a path has come up or gone down.", Type::counter,
        [](const Path& path, Samples& samples) {
            samples.push_back(sample(path.labels, static_cast<double>(path.record.transitions)));
        });
}

void Scrape::addQuality() {
    const auto figure = [this](const char* name, const char* help, auto&& value) {
        perPath(name, help, Type::gauge, [this, value](const Path& path, Samples& samples) {
            const PathQuality* quality = qualityOf(from_.platform, path.record.state.index);
            if (!quality) return;
            if (const double figure = value(*quality); figure == figure)
                samples.push_back(sample(path.labels, figure));
        });
    };
    figure("nav_path_alive", "Whether the probes of a path are answered; absent if none ever was.",
           [](const PathQuality& quality) {
               return quality.state == PathLiveness::notChecked ? PathQuality::unknown
                      : quality.state == PathLiveness::alive    ? 1.0
                                                                : 0.0;
           });
    figure("nav_path_round_trip_seconds", "Mean round trip over the window.",
           [](const PathQuality& quality) { return quality.rttMean / 1000; });
    figure("nav_path_jitter_seconds", "Mean difference of successive round trips.",
           [](const PathQuality& quality) { return quality.jitter / 1000; });
    figure("nav_path_loss_forward_ratio", "Probes lost towards the destination, 0 to 1.",
           [](const PathQuality& quality) { return quality.lossForward / 100; });
    figure("nav_path_loss_backward_ratio", "Answers lost on the way back, 0 to 1.",
           [](const PathQuality& quality) { return quality.lossBackward / 100; });
}

// The figures of the paths are complete once those of all applications have been read. They are
// rates, because a sum over ids decreases when an id is released.
void Scrape::addTraffic() {
    perApplication("nav_traffic_sent_bytes_total", "Bytes sent to a site, by application.",
                   Type::counter, [](const Application& application, Samples& samples) {
                       if (application.counted)
                           samples.push_back(
                               sample(application.labels, static_cast<double>(application.bytes)));
                   });
    perApplication("nav_traffic_sent_packets_total", "Packets sent to a site, by application.",
                   Type::counter, [](const Application& application, Samples& samples) {
                       if (application.counted)
                           samples.push_back(sample(application.labels,
                                                    static_cast<double>(application.packets)));
                   });
    perApplication("nav_traffic_paths", "Paths that carry an application to a site.", Type::gauge,
                   [](const Application& application, Samples& samples) {
                       samples.push_back(
                           sample(application.labels, static_cast<double>(application.carriers)));
                   });
    perApplication("nav_traffic_last_change_timestamp_seconds",
                   "Since when these paths carry an application to a site.", Type::gauge,
                   [](const Application& application, Samples& samples) {
                       samples.push_back(sample(application.labels, seconds(application.since)));
                   });
    perPath("nav_path_sent_bytes_per_second", "Rate of the traffic sent over a path.", Type::gauge,
            [](const Path& path, Samples& samples) {
                if (path.counted) samples.push_back(sample(path.labels, path.bitRate / 8));
            });
    perPath("nav_path_flows", "Flows of the traffic sent over a path.", Type::gauge,
            [](const Path& path, Samples& samples) {
                if (path.counted) samples.push_back(sample(path.labels, path.flows));
            });
}

// Names the application, and adds what the forwarding side has counted for its key to it and to its
// paths; once.
void Scrape::read(Application& application) {
    if (!application.labels.empty()) return;
    const auto& [site, appId, vrfId] = application.key;
    const Nav::NavDb* database = from_.database();
    application.labels = {{"vrf", vrfName(database, vrfId)},
                          {"application", applicationName(database, vrfId, appId)},
                          {"site", site.stringValue()}};
    const Nav::LbProfileStatus* ids = from_.inputs.navStatusDir->navLbProfileStatus();
    const Nav::LbProfileStatusEntry* id =
        ids ? ids->lbProfileStatusEntry(application.key) : nullptr;
    if (!id || !from_.counters->lbProfileCounter({id->lbIndex()}, counter_) ||
        counter_.lbKeyInfo != application.key)
        return;
    application.counted = true;
    application.bytes = counter_.outBytes;
    application.packets = counter_.outPkts;
    for (const auto& [index, position] : pathOf_) {
        const NavShard::NavPathCounterEntry& counter = counter_.pathCounter[index];
        Path& path = paths_[position];
        path.counted = true;
        path.bitRate += counter.throughput;
        path.flows += static_cast<double>(counter.flows);
    }
}

void Scrape::addIds() {
    const auto ids = [this](const char* name, const char* help, size_t used, size_t all) {
        families_.push_back(
            {name, help, Type::gauge, 1, [used, all](size_t, Samples& samples) {
                 samples.push_back(sample({{"state", "used"}}, static_cast<double>(used)));
                 samples.push_back(sample({{"state", "free"}}, static_cast<double>(all - used)));
             }});
    };
    const Nav::NavDb* database = from_.database();
    const Nav::LbProfileStatus* status = from_.inputs.navStatusDir->navLbProfileStatus();
    ids("nav_path_indices", "Indices of paths.", database ? database->pathKeyInfo().size() : 0,
        Nav::NavConstants::maxPathIndex);
    ids("nav_load_balance_ids", "Load-balance ids.",
        status ? status->lbProfileStatusEntry().size() : 0, Nav::NavConstants::maxLbIndex);
}

std::optional<std::string> Scrape::next() {
    if (family_ == families_.size()) return std::nullopt;
    const Family& family = families_[family_];
    Samples samples;
    while (item_ < family.items && samples.size() < samplesPerPiece) family.add(item_++, samples);
    std::string text = textOf(family, std::move(samples));
    if (item_ >= family.items) {
        ++family_;
        item_ = 0;
        headed_ = false;
    }
    return text;
}

// A metric has one header, in front of its first sample, and none without samples.
std::string Scrape::textOf(const Family& family, Samples samples) {
    if (samples.empty()) return {};
    using prometheus::MetricType;
    constexpr std::array types = {MetricType::Gauge, MetricType::Counter, MetricType::Histogram};
    std::string text = prometheus::TextSerializer().Serialize(
        {{family.name, family.help, types[static_cast<size_t>(family.type)], std::move(samples)}});
    if (!std::exchange(headed_, true)) return text;
    size_t begin = 0;
    while (begin < text.size() && text[begin] == '#') begin = text.find('\n', begin) + 1;
    return text.substr(begin);
}

}  // namespace Agent

#include "agent/linux/quality/PathProbing.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <random>

#include "agent/linux/kernel/IpsecDevice.h"
#include "agent/linux/kernel/LinuxTrace.h"
#include "nav/types/PathName.h"

namespace Agent::Linux {

namespace {

using Loom::Duration;
using Loom::Instant;
using Netz::IpGenAddr;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using namespace std::chrono_literals;

// The paths of a source are probed at up to 8 moments of their interval, at the first ones as long
// as there are not more than 64 paths each, whose packets are as long as four full-size packets.
constexpr size_t slots = 8, burst = 64;

// One round of reading takes all that the socket's buffer holds; a flood must not keep the thread.
constexpr int maxReads = 32;

// What happens within this time happens in one tick.
Duration tickOf(Duration interval) {
    return std::clamp<Duration>(interval / 20, 1ms, 5ms);
}

Instant roundUp(Instant time, Duration to) {
    const Duration beyond = time.time_since_epoch() % to;
    return beyond == 0ns ? time : time + to - beyond;
}

constexpr uint8_t trafficClass(Dscp dscp) {
    return static_cast<uint8_t>(dscp.value << 2);
}

}  // namespace

// Sends the probes of all paths from one place, and receives their answers.
struct PathProbing::Source {
    explicit Source(const Place& place) : socket(ProbeSocket::Role::sender, place, 0) {}

    struct Sent {
        uint32_t id = 0, sequence = 0;
        PathEntry* path = nullptr;  // null if it is no longer probed
    };
    Sent& sent(uint32_t id) { return lately[id % lately.size()]; }
    size_t freeSlot() const {
        const auto free = std::ranges::find_if(filled, [](size_t n) { return n < burst; });
        return static_cast<size_t>(
            (free == filled.end() ? std::ranges::min_element(filled) : free) - filled.begin());
    }

    ProbeSocket socket;
    std::map<IpGenAddr, PathEntry*> paths;  // by destination
    std::array<size_t, slots> filled{};     // how many of them are in each slot
    std::array<Sent, 1024> lately{};        // what the kernel's numbers stand for
    Instant next = Instant::max();          // when the first of them is due
};

PathProbing::PathProbing(const Nav::NavInputs& inputs, ForwardingPtr config, QualityStatus& quality,
                         std::function<const InterfaceView&()> interfaces)
    : in_(inputs),
      config_(std::move(config)),
      quality_(quality),
      interfaces_(std::move(interfaces)),
      lastSessionId_(static_cast<uint16_t>(std::random_device()())),
      tick_(*in_.scheduler, Loom::call<&PathProbing::tick>(*this)),
      review_(*in_.scheduler, Loom::call<&PathProbing::review>(*this)) {
    review_.armIn(reviewInterval);
}

PathProbing::~PathProbing() = default;

// Each reason at a place once.
void PathProbing::report(const Place& place, const std::string& what) {
    if (reported_.emplace(place, what).second) DUOLOG(linuxTrace, 3, what);
}

ProbeValues PathProbing::valuesOf(const Netz::IntfId& interface) const {
    for (const Nav::PathGroupConfig& group : in_.cliConfig->pathGroupConfig())
        if (group.localIntfHas(interface)) return probeValues(*config_->probe(), group.name());
    return probeValues(*config_->probe(), {});
}

PathProbing::Source* PathProbing::sourceAt(const Place& place) try {
    auto& source = sources_[place];
    if (!source) source = std::make_unique<Source>(place);
    return source.get();
} catch (const Vel::Error& error) {
    sources_.erase(place);
    report(place, std::string("Paths are not probed: ") + error.what());
    return nullptr;
}

void PathProbing::pathIs(uint32_t pathIndex, const Nav::PathKey& key, const Interface& interface,
                         bool secured) {
    Path& path = paths_[pathIndex];
    if (path.key != key) end(pathIndex, path);
    path.key = key;
    path.interface = interface.name;
    path.ifIndex = interface.index;
    path.secured = secured;
    follow(pathIndex, path);
    arm();
}

Place PathProbing::placeOf(const IpGenAddr& source, uint32_t ifIndex, bool secured) const {
    const Interface* ipsec = secured ? ipsecDeviceIn(interfaces_()) : nullptr;
    return {source, ipsec ? ipsec->index : ifIndex};
}

void PathProbing::pathDel(uint32_t pathIndex) {
    const auto path = paths_.find(pathIndex);
    if (path == paths_.end()) return;
    end(pathIndex, path->second);
    paths_.erase(path);
}

// Makes the path's session what the configuration says.
void PathProbing::follow(uint32_t pathIndex, Path& path) {
    const ProbeValues values = valuesOf(path.interface);
    const Place place = placeOf(path.key.srcAddr, path.ifIndex, path.secured);
    if (path.session && path.session->values() == values && path.place == place) return;
    // With another key, an answer can be expected only once the other end has it, too.
    const bool isRekeyed = path.session && path.session->values().key != values.key;
    if (path.session) end(pathIndex, path);
    const auto memory = memories_.find(path.key);
    if (isRekeyed && memory != memories_.end() && !memory->second.isDead) memories_.erase(memory);
    if (values.interval == 0) return void(memories_.erase(path.key));
    path.place = place;
    path.source = sourceAt(place);
    if (!path.source) return;
    path.source->paths[path.key.dstAddr] = &*paths_.find(pathIndex);
    if (++lastSessionId_ == 0) ++lastSessionId_;
    path.slot = path.source->freeSlot();
    ++path.source->filled[path.slot];
    const Duration interval = milliseconds(values.interval);
    const Duration phase = interval * path.slot / slots;
    const auto before = memories_.extract(path.key);
    path.session.emplace(values, lastSessionId_, roundUp(in_.scheduler->now(), interval) + phase,
                         before.empty() ? std::nullopt : std::optional(before.mapped()));
    path.source->next = std::min(path.source->next, path.session->nextSend());
    publish(pathIndex, path);
}

void PathProbing::end(uint32_t pathIndex, Path& path) {
    if (!path.session) return;
    if (const auto memory = path.session->memory()) memories_[path.key] = *memory;
    Source& source = *std::exchange(path.source, nullptr);
    --source.filled[path.slot];
    for (Source::Sent& sent : source.lately)
        if (sent.path && sent.path->first == pathIndex) sent = {};
    path.session.reset();
    std::erase_if(source.paths, [&](const auto& each) { return each.second->first == pathIndex; });
    if (source.paths.empty()) sources_.erase(path.place);
    quality_->pathQualityDel(pathIndex);
}

void PathProbing::configured() {
    for (auto& [pathIndex, path] : paths_) follow(pathIndex, path);
    reflect();
    arm();
}

bool PathProbing::unprotected(uint32_t pathIndex) const {
    const auto path = paths_.find(pathIndex);
    return path != paths_.end() && path->second.session && path->second.unprotected;
}

Json PathProbing::report() const {
    Json rows = Json::array();
    for (const auto& [pathIndex, path] : paths_) {
        if (!path.session) continue;
        const ProbeCounts& counts = path.session->counts();
        rows.push_back({{"path", Nav::pathName(pathIndex)},
                        {"source", path.key.srcAddr.stringValue()},
                        {"destination", path.key.dstAddr.stringValue()},
                        {"sent", counts.sent},
                        {"refused", counts.refused},
                        {"answered", counts.answered},
                        {"lost", counts.lost},
                        {"late", counts.late},
                        {"duplicate", counts.duplicate},
                        {"unexpected", counts.unexpected},
                        {"malformed", counts.malformed},
                        {"notAuthentic", counts.notAuthentic}});
    }
    const ReflectorCounts counts = reflector_.counts();
    return {{"paths", rows},
            {"reflector",
             {{"answered", counts.answered},
              {"stranger", counts.stranger},
              {"malformed", counts.malformed},
              {"notAuthentic", counts.notAuthentic},
              {"replayed", counts.replayed},
              {"limited", counts.limited}}}};
}

void PathProbing::arm() {
    Instant next = Instant::max();
    for (const auto& [place, source] : sources_) next = std::min(next, source->next);
    if (next != Instant::max()) tick_.armAt(next);
}

void PathProbing::tick() {
    const Instant now = in_.scheduler->now();
    clock_.compare();
    for (auto& [place, source] : sources_) {
        if (source->next > now) continue;
        readAnswers(*source);
        for (const auto& [destination, path] : source->paths)
            if (path->second.session->judge(now) || path->second.publishAt <= now)
                publish(path->first, path->second);
        sendDue(*source, now);
        source->next = nextOf(*source);
    }
    arm();
}

// What is due at about the same time is due together.
Instant PathProbing::nextOf(const Source& source) {
    Instant next = Instant::max();
    for (const auto& [destination, path] : source.paths) {
        const ProbeSession& session = *path->second.session;
        const Instant judgement = session.nextJudgement();
        next = std::min(next, session.nextSend());
        if (judgement < next)
            next = roundUp(judgement, tickOf(milliseconds(session.values().interval)));
    }
    return next;
}

void PathProbing::readAnswers(Source& source) {
    const auto pathOf = [&](const ProbeDatagram& datagram) -> PathEntry* {
        const auto path = source.paths.find(datagram.peer);
        return path == source.paths.end() || datagram.port != probePort ? nullptr : path->second;
    };
    const ProbeSocket::Reports reports{
        .transmitted =
            [&](uint32_t id, nanoseconds sinceEpoch) {
                const Source::Sent& sent = source.sent(id);
                const auto at = clock_.instant(sinceEpoch);
                if (sent.path && sent.id == id && at)
                    sent.path->second.session->transmitted(sent.sequence, *at);
            },
        .portUnreachable =
            [&](const ProbeDatagram& quoted) {
                auto* const path = pathOf(quoted);
                if (path && path->second.session->portUnreachable(quoted.data))
                    publish(path->first, path->second);
            }};
    for (int i = 0; i < maxReads && source.socket.receiveReports(reports);) ++i;
    const auto take = [&](const ProbeDatagram& datagram) {
        auto* const path = pathOf(datagram);
        if (!path) return;
        const auto at = datagram.sinceEpoch ? clock_.instant(*datagram.sinceEpoch) : std::nullopt;
        if (path->second.session->receive(datagram.data, at.value_or(in_.scheduler->now())))
            publish(path->first, path->second);
    };
    for (int i = 0; i < maxReads && source.socket.receive(take);) ++i;
}

void PathProbing::sendDue(Source& source, Instant now) {
    static std::array<std::array<std::byte, authenticatedStampSize>, 128> buffers;
    std::vector<ProbeDatagram> datagrams;
    std::vector<Source::Sent> sent;
    for (const auto& [destination, path] : source.paths) {
        ProbeSession& session = *path->second.session;
        if (session.nextSend() > now || sent.size() == buffers.size()) continue;
        const SenderPacket packet = session.send(in_.scheduler->now(), DayClock::now());
        datagrams.push_back({.peer = destination,
                             .port = probePort,
                             .trafficClass = trafficClass(session.values().dscp),
                             .data = write(packet, buffers[sent.size()], session.key())});
        sent.push_back({.sequence = packet.sequence, .path = path});
        path->second.unprotected = false;
    }
    const uint32_t first = source.socket.nextId();
    source.socket.send(datagrams, [&](size_t at, int error) {
        Path& path = sent[at].path->second;
        // The agent's own rules drop what IPsec does not protect. Traffic would be dropped, too, so
        // the probe counts as lost.
        path.unprotected = path.secured && error == EPERM;
        if (path.unprotected) return;
        path.session->sendFailed();
        report(path.place, "A probe from " + path.key.srcAddr.stringValue() + " to " +
                               path.key.dstAddr.stringValue() +
                               " cannot be sent: " + std::strerror(error));
    });
    if (source.socket.nextId() != first + sent.size()) return void(source.lately = {});
    for (uint32_t i = 0; i < sent.size(); ++i) {
        sent[i].id = first + i;
        source.sent(first + i) = sent[i];
    }
}

void PathProbing::publish(uint32_t pathIndex, Path& path) {
    const PathQuality* before = quality_->pathQuality(pathIndex);
    const PathLiveness state = before ? before->state : PathLiveness::notChecked;
    PathQuality quality;
    path.session->figures(quality);
    if (quality.state == PathLiveness::dead && state != quality.state)
        DUOLOG(linuxTrace, 4, "Path", pathIndex, " ", path.key,
               path.unprotected ? " is dead: IPsec does not protect its packets"
                                : " is dead: its other end no longer answers probes");
    if (state == PathLiveness::dead && state != quality.state)
        DUOLOG(linuxTrace, 5, "Path", pathIndex, " ", path.key, " is alive again");
    const Duration tenth = milliseconds(path.session->values().window) / 10;
    path.publishAt = in_.scheduler->now() + std::min(publishInterval, tenth);
    quality_->pathQualityIs(pathIndex, quality);
}

void PathProbing::review() {
    for (auto& [pathIndex, path] : paths_) follow(pathIndex, path);
    arm();
    reflect();
    review_.armIn(reviewInterval);
}

// Answers are given at the sources of all configured paths, to their destinations.
void PathProbing::reflect() {
    std::map<Reflector::Pair, Vel::Secret> peers;
    std::set<Place> places;
    std::set<Nav::PathKey> configured;
    for (const Nav::PathConfig& vrf : in_.pathConfigDir->pathConfig())
        for (const Nav::PathConfigEntry& entry : vrf.pathConfigEntry()) {
            const IpGenAddr source = entry.key().srcAddr;
            configured.insert(entry.key());
            for (const Interface& interface : interfaces_().interfaces) {
                if (interface.primary4.addr != source && interface.primary6.addr != source)
                    continue;
                if (interface.vrf.name != vrf.vrfName()) continue;
                places.insert(placeOf(source, interface.index, !entry.ipsecProfile().empty()));
                peers[{source, entry.key().dstAddr}] = valuesOf(interface.name).key;
            }
        }
    const ProbeConfig& probe = *config_->probe();
    reflector_.peersAre(peers, probe.answerStrangers() ? std::optional(probe.key()) : std::nullopt);
    reflector_.placesAre(places, [this](const Place& place, const std::string& reason) {
        report(place, "Probes of others are not answered: " + reason);
    });
    std::erase_if(memories_, [&](const auto& each) { return !configured.contains(each.first); });
}

}  // namespace Agent::Linux

#include "agent/sim/World.h"

#include <algorithm>

#include "platform/shard/Via.h"

namespace Agent::Sim {

namespace {

constexpr double longestDelay = 24 * 3600 * 1000.0;  // milliseconds

// A value of the file, its place, and the speed of the world relative to real time.
struct Place {
    const Json& json;
    Json::json_pointer at;
    double speed = 1;

    [[noreturn]] void refuse(const std::string& reason) const { throw PlacedError(at, reason); }
    [[noreturn]] void expected(const std::string& what) const {
        refuse("expected " + what + ", got " + dumpLine(json).substr(0, 40));
    }
    Place member(const std::string& name) const { return {json.at(name), at / name, speed}; }
};

template <class F>
void eachMember(const Place& place, F f) {
    if (!place.json.is_object()) place.expected("an object");
    for (const auto& item : place.json.items()) f(item.key(), place.member(item.key()));
}

template <class T>
T fromText(const Place& place, const std::string& text) {
    try {
        return Vel::Codec<T>::fromKey(text);
    } catch (const Vel::Error& error) {
        place.refuse(error.what());
    }
}

template <class T>
void read(const Place& place, T& value) {
    if (!place.json.is_string()) place.expected("a string");
    value = fromText<T>(place, place.json.get<std::string>());
}
void read(const Place& place, bool& value) {
    if (!place.json.is_boolean()) place.expected("true or false");
    value = place.json.get<bool>();
}
void read(const Place& place, U32& value) {
    const auto fits = [](uint64_t n) { return n <= std::numeric_limits<U32>::max(); };
    if (!place.json.is_number_unsigned() || !fits(place.json.get<uint64_t>()))
        place.expected("a number from 0 to 4294967295");
    value = place.json.get<U32>();
}
void read(const Place& place, double& value) {
    if (!place.json.is_number()) place.expected("a number");
    value = place.json.get<double>();
}
void read(const Place& place, Duration& value) {
    double milliseconds = 0;
    read(place, milliseconds);
    if (!(milliseconds >= 0 && milliseconds <= longestDelay))
        place.expected("milliseconds from 0 to 86400000");
    value = Duration(static_cast<Duration::rep>(milliseconds * 1e6 / place.speed));
}
template <class K, class V>
void read(const Place& place, std::map<K, V>& map) {
    eachMember(place, [&](const std::string& name, const Place& member) {
        const auto [entry, isNew] = map.try_emplace(fromText<K>(member, name));
        if (!isNew) member.refuse("duplicate of an entry above, written differently");
        read(member, entry->second);
    });
}
template <class T>
void read(const Place& place, std::vector<T>& list) {
    if (!place.json.is_array()) place.expected("an array");
    for (size_t i = 0; i < place.json.size(); ++i)
        read(Place{place.json[i], place.at / i, place.speed}, list.emplace_back());
}

template <class T>
struct Member {
    const char* name;
    T& value;
};
template <class T>
Member(const char*, T&) -> Member<T>;

template <class... T>
void readMembers(const Place& place, Member<T>... members) {
    eachMember(place, [&](const std::string& name, const Place& member) {
        const bool known = ((name == members.name && (read(member, members.value), true)) || ...);
        if (!known) member.refuse("attribute not found");
    });
}

void read(const Place& place, World::Quality& quality) {
    readMembers(place, Member{"delay", quality.delay}, Member{"jitter", quality.jitter},
                Member{"lossForward", quality.lossForward},
                Member{"lossBackward", quality.lossBackward});
    const auto require = [&](const char* name, double value, double least, double most) {
        if (!(value >= least && value <= most))
            place.member(name).expected("a number from 0 to " + std::to_string(int(most)));
    };
    require("delay", quality.delay, 0, longestDelay);
    require("lossForward", quality.lossForward, 0, 100);
    require("lossBackward", quality.lossBackward, 0, 100);
    if (!(quality.jitter >= 0 && quality.jitter <= 2 * quality.delay))
        place.member("jitter").refuse("must be from 0 to twice the delay");
}
void read(const Place& place, World::Probe& probe) {
    readMembers(place, Member{"interval", probe.interval}, Member{"multiplier", probe.multiplier},
                Member{"window", probe.window}, Member{"upDelay", probe.upDelay},
                Member{"downDelay", probe.downDelay});
    if (probe.interval < std::chrono::milliseconds(1))
        place.member("interval").refuse("must be at least 1 ms of real time");
    if (probe.multiplier == 0) place.member("multiplier").refuse("must be at least 1");
    if (probe.window < probe.interval) place.refuse("window must not be less than interval");
}
void read(const Place& place, World::Interface& interface) {
    readMembers(place, Member{"vrf", interface.vrf}, Member{"v4", interface.v4},
                Member{"v6", interface.v6}, Member{"up", interface.up},
                Member{"neighbours", interface.neighbours}, Member{"quality", interface.quality});
    if (interface.v4.addr.isV6()) place.member("v4").expected("an IPv4 address");
    if (interface.v6.addr.isV4() && !interface.v6.addr.isZero())
        place.member("v6").expected("an IPv6 address");
}
void read(const Place& place, World::Via& via) {
    readMembers(place, Member{"gateway", via.gateway}, Member{"interface", via.interface},
                Member{"weight", via.weight});
}
void read(const Place& place, World::Peer& peer) {
    readMembers(place, Member{"handshake", peer.handshake}, Member{"retry", peer.retry},
                Member{"rekeyInterval", peer.rekeyInterval}, Member{"rekeyGap", peer.rekeyGap},
                Member{"rekeyChangesEncapId", peer.rekeyChangesEncapId},
                Member{"lifetime", peer.lifetime}, Member{"fault", peer.fault});
    if (peer.lifetime != Duration{} && peer.lifetime <= peer.rekeyInterval)
        place.member("lifetime").refuse("must be longer than rekeyInterval");
    // Shorter times would occupy the event thread completely.
    constexpr Duration shortest = std::chrono::milliseconds(1);
    if (peer.retry < shortest) place.member("retry").refuse("must be at least 1 ms of real time");
    if (peer.rekeyInterval != Duration{} && peer.rekeyInterval < shortest)
        place.member("rekeyInterval").refuse("must be at least 1 ms of real time");
    if (peer.lifetime != Duration{} && peer.lifetime < shortest)
        place.member("lifetime").refuse("must be at least 1 ms of real time");
}
void read(const Place& place, World::Vrf& vrf) {
    readMembers(place, Member{"id", vrf.id}, Member{"routes", vrf.routes},
                Member{"peers", vrf.peers});
}

void checkRoutes(const World& world, const L3::VrfName& vrf, const Place& routes) {
    eachMember(routes, [&](const std::string& text, const Place& route) {
        const auto prefix = fromText<Netz::IpAddrWithMask>(route, text);
        const World::Vias& vias = world.vrfs.at(vrf).routes.at(prefix);
        if (vias.size() > Shard::Fib::Fec::maxVias)
            route.refuse("more than " + std::to_string(Shard::Fib::Fec::maxVias) + " vias");
        for (size_t i = 0; i < vias.size(); ++i) {
            const Place via{route.json[i], route.at / i};
            const auto interface = world.interfaces.find(vias[i].interface);
            if (interface == world.interfaces.end() || interface->second.vrf != vrf)
                via.refuse("expected an interface of VRF \"" + vrf.str() + "\"");
            const Netz::IpGenAddr& gateway = vias[i].gateway;
            if (!gateway.isZero() && gateway.isV4() != prefix.addr.isV4())
                via.refuse("the gateway must be of the address family of the prefix");
        }
    });
}

void checkVrfs(const World& world, const Place& place) {
    std::map<U32, L3::VrfName> names;
    for (const auto& [name, vrf] : world.vrfs) {
        const bool isDefault = name.str() == "default";
        if (isDefault && vrf.id != 0) place.member("default").refuse("its id must be 0");
        if (!isDefault && vrf.id != 0 && !names.emplace(vrf.id, name).second)
            place.member(name.str())
                .refuse("has the same id as VRF \"" + names.at(vrf.id).str() + "\"");
        if (!vrf.routes.empty())
            checkRoutes(world, name, place.member(name.str()).member("routes"));
    }
}

World readWorld(const Place& place) {
    World world;
    world.vrfs.clear();
    readMembers(place, Member{"probe", world.probe},
                Member{"programmingDelay", world.programmingDelay},
                Member{"interfaces", world.interfaces}, Member{"vrfs", world.vrfs});
    world.vrfs.try_emplace(L3::VrfName("default"));
    for (const auto& [name, interface] : world.interfaces) {
        if (!world.vrfs.contains(interface.vrf))
            place.member("interfaces")
                .member(name.stringValue())
                .refuse("VRF \"" + interface.vrf.str() + "\" not found");
    }
    if (place.json.contains("vrfs")) checkVrfs(world, place.member("vrfs"));
    return world;
}

}  // namespace

bool World::up(const Netz::IntfId& interface) const {
    const auto found = interfaces.find(interface);
    return found != interfaces.end() && found->second.up;
}

World::Vias World::lookup(const L3::VrfName& vrf, const Netz::IpGenAddr& addr) const {
    const auto found = vrfs.find(vrf);
    if (found == vrfs.end()) return {};
    Vias best;
    int longest = -1;
    auto offer = [&](const Netz::IpAddrWithMask& prefix, Vias vias) {
        if (prefix.prefixLength <= longest || !prefix.contains(addr)) return;
        std::erase_if(vias, [&](const Via& via) { return !up(via.interface); });
        for (Via& via : vias)
            if (via.gateway.isZero()) via.gateway = addr;
        if (vias.empty()) return;
        longest = prefix.prefixLength;
        best = std::move(vias);
    };
    for (const auto& [name, interface] : interfaces) {
        if (interface.vrf != vrf) continue;
        for (const Netz::IpAddrWithMask& own : {interface.v4, interface.v6})
            if (!own.addr.isZero()) offer(own, {Via{{}, name, 1}});
    }
    for (const auto& [prefix, vias] : found->second.routes) offer(prefix, vias);
    return best;
}

const World::Peer* World::peer(const L3::VrfName& vrf, const Netz::IpGenAddr& addr) const {
    const auto found = vrfs.find(vrf);
    if (found == vrfs.end()) return nullptr;
    const auto peer = found->second.peers.find(addr);
    return peer == found->second.peers.end() ? nullptr : &peer->second;
}

const World::Quality* World::quality(const Netz::IntfId& interface,
                                     const Netz::IpGenAddr& addr) const {
    const auto found = interfaces.find(interface);
    if (found == interfaces.end()) return nullptr;
    const std::pair<const Netz::IpAddrWithMask, Quality>* best = nullptr;
    for (const auto& each : found->second.quality)
        if (each.first.contains(addr) &&
            (!best || each.first.prefixLength > best->first.prefixLength))
            best = &each;
    return best ? &best->second : nullptr;
}

std::optional<Duration> World::neighbourDelay(const Netz::IntfId& interface,
                                              const Netz::IpGenAddr& hop) const {
    if (!up(interface)) return std::nullopt;
    const auto& neighbours = interfaces.at(interface).neighbours;
    const auto found = neighbours.find(hop);
    if (found == neighbours.end()) return std::nullopt;
    return found->second;
}

History readHistory(const Json& file) {
    Place whole{file, Json::json_pointer()};
    if (!file.is_object()) whole.expected("an object");
    Json world = file;
    if (file.contains("speed")) {
        read(whole.member("speed"), whole.speed);
        if (!(whole.speed >= 0.001 && whole.speed <= 1000))
            whole.member("speed").expected("a number from 0.001 to 1000");
        world.erase("speed");
    }
    world.erase("events");
    History history{readWorld({world, whole.at, whole.speed}), {}};
    if (!file.contains("events")) return history;

    // An event is a merge patch (RFC 7396) of the world before it.
    const Place events = whole.member("events");
    if (!events.json.is_array()) events.expected("an array");
    for (size_t i = 0; i < events.json.size(); ++i) {
        Json change = events.json[i];
        const Place event{change, events.at / i, whole.speed};
        if (!change.is_object() || !change.contains("at"))
            event.expected("an object with \"at\", the time of the event");
        Duration at{};
        read(event.member("at"), at);
        if (!history.steps.empty() && at < history.steps.back().at)
            event.member("at").refuse("must not be less than that of the event before");
        change.erase("at");
        world.merge_patch(change);
        history.steps.push_back({at, readWorld({world, event.at, whole.speed})});
    }
    return history;
}

History readHistoryFile(const std::string& name) {
    std::string text;
    try {
        text = readFile(name);
        return readHistory(parseJson(text, Comments::ignored));
    } catch (const PlacedError& error) {
        throw JsonError(name + ": line " + std::to_string(lineOf(text, error.place())) + ": " +
                        error.what());
    } catch (const JsonError& error) {
        throw JsonError(name + ": " + error.what());
    }
}

}  // namespace Agent::Sim

#include "tests/oracle/Nested.h"

namespace Oracle {

namespace {

// The text between "name[" and the next "]".
std::string keyOf(const std::string& place, const std::string& name) {
    const size_t at = place.find("/" + name + "[");
    if (at == place.npos) return {};
    const size_t begin = at + name.size() + 2;
    return place.substr(begin, place.find(']', begin) - begin);
}

}  // namespace

// Puts the name of the path in the place of its index, which follows at `at`.
void Outcome::nameIndex(std::string& text, size_t at) const {
    const size_t end = std::min(text.find_first_not_of("0123456789", at), text.size());
    const auto name = names_.find(text.substr(at, end - at));
    text.replace(at, end - at, name == names_.end() ? "none" : name->second);
}

Outcome::Outcome(const World& world) {
    const Inputs in = inputsOf(world.in);
    for (const auto& vrf : world.in.pathConfigDir->pathConfig())
        for (const auto& path : vrf.pathConfigEntry())
            if (!names_.emplace(std::to_string(path.pathIndex()), Vel::valueToStrep(path.key()))
                     .second)
                lines_.insert("index in use twice");
    const auto wanted = wantedKeys(in, world.in);
    const auto isUnresolved = [&](const std::string& vrf) {
        return !vrf.empty() && !in.results.contains(VrfName(vrf));
    };
    for (const auto& [at, was] : world.published()) {
        std::string place = at, value = was;
        const std::string attribute = place.substr(place.rfind('/') + 1);
        const std::string name = attribute.substr(0, attribute.find('['));
        if (isOpen(place) || std::set<std::string>{"lbIndex", "genId", "version"}.contains(name))
            continue;
        if (place.ends_with("]/" + name) && isUnresolved(keyOf(place, "pathStatus"))) continue;
        const std::string connection = keyOf(place, "ipsecPathConfig");
        if (isUnresolved(connection.substr(connection.rfind(',') + 1))) continue;
        // The keys that no rule wants are kept for the return of their sites.
        std::string key = keyOf(place, "lbProfileStatusEntry");
        if (name == "lbKey") key = keyOf(place, name) + " " + keyOf(place, "lbNameToLbKeySet");
        if (!key.empty() && !wanted.contains(key)) {
            if (place.ends_with("]/" + name)) continue;
            if (name != "pathEntry") value = "kept";
        }
        // A VRF whose id was withdrawn keeps the one that was seen last.
        if (name == "vrfNameToId" || name == "vrfIdToName") {
            const bool byName = name == "vrfNameToId";
            const std::string vrf = byName ? keyOf(place, name) : value.substr(1, value.size() - 2);
            const auto id = in.vrfIds.find(VrfName(vrf));
            if (id == in.vrfIds.end() ||
                std::to_string(id->second) != (byName ? value : keyOf(place, name)))
                continue;
        }
        if (name == "encapId") value = std::to_string(value != std::to_string(Nav::noEncapId));
        if (name == "pathIndex") nameIndex(value, 0);
        if (name == "connectionName") nameIndex(value, std::string("\"Path").size());
        if (const size_t index = value.find("\"pathIndex\":"); index != value.npos)
            nameIndex(value, index + std::string("\"pathIndex\":").size());
        if (name == "pathIndexEntry" || name == "pathEntry") nameIndex(place, place.rfind('[') + 1);
        lines_.insert(place + " " + value);
    }
    inputs_ = in;
    inputs_.results = {}, inputs_.fecs = inputs_.fecs6 = {};
    inputs_.connections = {}, inputs_.hardware = {};
}

// Of load balancing: those that rules want, alone and with the profiles that want them.
std::set<std::string> Outcome::wantedKeys(const Inputs& in, const Nav::NavInputs& published) {
    std::set<std::string> wanted;
    for (const auto& vrf : published.navStatusDir->navRuleStatus())
        for (const auto& entry : vrf.navRuleEntry())
            for (const auto& site : published.siteGroupStatus->siteGroupStatusEntry()) {
                const auto profile = in.profiles.find(entry.lbProfileName);
                const auto id = in.vrfIds.find(vrf.name());
                if (profile == in.profiles.end() ||
                    !profile->second.priorities.contains(site.key().name))
                    continue;
                const std::string key =
                    Vel::Codec<Nav::LbProfileKey>::key({site.key().routerIp, entry.appProfileId,
                                                        id == in.vrfIds.end() ? 0 : id->second});
                wanted.insert({key, key + " " + entry.lbProfileName});
            }
    return wanted;
}

// A copy of a world in which changes are made.
class Pair::Copy {
  public:
    Copy(const World& base, bool services, bool before = false,
         const Observer::Function& function = nullptr)
        : world_(base, false, false) {
        if (function && before) observer_.emplace(world_.in, function);
        if (services) {
            // These answered requests of the base.
            world_.in.hwPathStatus->hwPathStatusListDelAll();
            for (auto& vrf : world_.in.nexthopStatus->vrf()) vrf.nexthopDelAll();
            services_.emplace(world_.in);
        }
        world_.start();
        world_.settle();
        if (function && !before) observer_.emplace(world_.in, function);
    }
    World& world() { return world_; }
    static Outcome outcomeOf(std::unique_ptr<Copy> copy, const std::vector<Event>& events) {
        try {
            for (const Event& event : events) copy->world_.apply(event), copy->world_.settle();
            return Outcome(copy->world_);
        } catch (const std::exception& e) {
            // It may not survive its end; the leak check still finds it.
            static auto& broken = *new std::vector<Copy*>;
            broken.push_back(copy.release());
            if (e.what() != std::string("assertion failed: freePathIds()")) throw;
            return {};
        }
    }

  private:
    World world_;
    std::optional<Services> services_;
    std::optional<Observer> observer_;
};

std::optional<std::string> Pair::run(size_t position, bool before) {
    std::string at;
    size_t left = 0;  // until the notification, while the outer change is under way
    World* world = nullptr;
    auto copy = std::make_unique<Copy>(
        base_, services_, before,
        [&](Vel::Entity& entity, const Vel::Attribute& attribute, const std::string& key) {
            if (left == 0 || --left > 0) return;
            at = entity.type().name + ("." + std::string(attribute.name)) + "[" + key + "]";
            world->apply(inner_);
        });
    world = &copy->world();
    left = position;
    try {
        const Outcome outcome = Copy::outcomeOf(std::move(copy), {outer_});
        if (std::exchange(left, 0) > 0) return std::nullopt;
        const std::string failure = wrong(outcome);
        if (failure.empty()) return failure;
        at += ":\n" + failure;
    } catch (const std::exception& e) {
        at += std::string(": ") + e.what();
    }
    return toLine(outer_) + "\n  at notification " + std::to_string(position) +
           (before ? ", before" : ", after") + " the reactors, " + at + "\n  " + toLine(inner_);
}

// What is there in neither order, or missing although it is there in both. (A change may reach one
// path before the other change and the next path after it.) Where one order runs out of indices,
// the outcome is that of the other, unless the outer change alone runs out of them. Of orders that
// leave different inputs, only the one that leaves those of the outcome counts.
std::string Pair::wrong(const Outcome& outcome) {
    if (!inOrder_) {
        const auto ofOrder = [&](const Event& first, const Event& second) {
            return Copy::outcomeOf(std::make_unique<Copy>(base_, services_), {first, second});
        };
        inOrder_ = ofOrder(outer_, inner_);
        reversed_ = ofOrder(inner_, outer_);
    }
    if (outcome.ranOut() && inOrder_->ranOut()) return {};
    const auto counts = [&](const Outcome& order, const Outcome& other) {
        return !order.ranOut() && (order.hasInputsOf(outcome) || !other.hasInputsOf(outcome));
    };
    const auto& one = (counts(*inOrder_, *reversed_) ? inOrder_ : reversed_)->lines();
    const auto& other = (counts(*reversed_, *inOrder_) ? reversed_ : inOrder_)->lines();
    std::string found = outcome.ranOut() ? "    out of indices\n" : "";
    for (const auto& line : outcome.lines())
        if (!one.contains(line) && !other.contains(line)) found += "    too much: " + line + "\n";
    for (const auto& line : one)
        if (other.contains(line) && !outcome.lines().contains(line))
            found += "    missing: " + line + "\n";
    return found;
}

}  // namespace Oracle

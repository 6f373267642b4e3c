#include "tests/oracle/Nested.h"

namespace Oracle {

namespace {
template <class T>
std::string text(const T& value) {
    if constexpr (std::is_convertible_v<const T&, std::string>)
        return value;
    else
        return Vel::valueToStrep(value);
}
}  // namespace

template <class... Parts>
void Outcome::add(const Parts&... parts) {
    lines_.insert(((text(parts) + " ") + ...));
}

std::string Outcome::index(U32 i) const {
    const auto name = names_.find(i);
    return name == names_.end() ? "of nothing" : "of " + name->second;
}

Outcome::Outcome(const World& world) {
    const Published all = publishedIn(world.in, world.navDb());
    const Inputs in = inputsOf(world.in);
    addPaths(in, all);
    findWanted(in, all);
    addPolicies(all);
    if (all.db) addDatabase(in, *all.db);
}

void Outcome::addPaths(const Inputs& in, const Published& all) {
    const auto isResolved = [&](const VrfName& vrf) { return in.results.contains(vrf); };
    for (const auto& [vrf, paths] : all.paths)
        for (const auto& [key, path] : paths) {
            if (!names_.emplace(path.index, text(key)).second) add("index in use twice", key);
            add("path", vrf, key, path.ipsecProfile);
        }
    for (const auto& [vrf, paths] : all.statuses)
        for (const auto& [key, status] : paths) {
            add("status", vrf, key);
            if (!isResolved(vrf)) continue;
            add("status", vrf, key, status.info.pathType, status.info.pathState, status.info.via,
                index(status.info.pathIndex),
                status.encapId == Nav::noEncapId ? "-" : "encapsulated", status.programmed);
        }
    for (const auto& [site, indices] : all.siteGroups) {
        add("site group", site);
        for (const U32 i : indices) add("site group", site, index(i));
    }
    for (const auto& [vrf, addrs] : all.nexthops)
        for (const auto& addr : addrs) add("next hop", vrf, addr);
    for (const auto& [key, request] : all.requests)
        if (isResolved(key.vrfName))
            add("request", key, request.profile, request.intf,
                index(static_cast<U32>(std::stoul(request.name.substr(4)))));
    for (const auto& site : all.sites) add("site", site);
}

void Outcome::findWanted(const Inputs& in, const Published& all) {
    for (const auto& [vrf, entries] : all.rules)
        for (const auto& entry : entries)
            for (const auto& [site, indices] : all.siteGroups) {
                const auto profile = in.profiles.find(entry.lbProfileName);
                if (profile == in.profiles.end() || !profile->second.priorities.contains(site.name))
                    continue;
                const auto id = in.vrfIds.find(vrf);
                const Nav::LbProfileKey key{site.routerIp, entry.appProfileId,
                                            id == in.vrfIds.end() ? 0 : id->second};
                wanted_.insert({key, {}});
                wanted_.insert({key, entry.lbProfileName});
            }
}

void Outcome::addPolicies(const Published& all) {
    for (const auto& [vrf, entries] : all.rules) {
        add("rules", vrf);
        for (const auto& entry : entries) add("rule", vrf, entry);
    }
    for (const auto& [key, balance] : all.balances) {
        if (wanted_.contains({key, {}}))
            add("balance", key, balance.constraints);
        else
            add("kept balance", key);
        for (const auto& [i, member] : balance.members)
            add("member", key, index(i), member.priority, member.groupName);
    }
    for (const auto& [name, feature] : all.featurePolicies)
        for (const auto& [key, app] : feature.applications) add("feature", name, key, app);
    for (const auto& [vrf, name] : all.appliedPolicies) add("applied", vrf, name);
}

void Outcome::addDatabase(const Inputs& in, const Published::Database& db) {
    add("database");
    for (const auto& [key, path] : db.paths)
        add("info", key, index(path.index), path.siteGroup, path.ipsecProfile, path.vrf);
    for (const auto& [addr, keys] : db.pathsOfAddr)
        for (const auto& key : keys) add("path of", addr, key);
    for (const auto& [addr, intf] : db.intfOf) add("interface of", addr, intf);
    for (const auto& [name, group] : db.groups) {
        add("group", name);
        for (const auto& key : group.paths) add("path of", name, key);
        for (const auto& site : group.sites) add("site of", name, site);
    }
    // A VRF whose id was withdrawn keeps the one that was seen last.
    for (const auto& [vrf, id] : in.vrfIds)
        if (db.vrfId.contains(vrf) && db.vrfId.at(vrf) == id) add("VRF id", vrf, id);
    for (const auto& [id, vrf] : db.vrfName)
        if (in.vrfIds.contains(vrf) && in.vrfIds.at(vrf) == id) add("VRF name", id, vrf);
    for (const auto& [key, app] : db.applications) add("application", app);
    for (const auto& [name, keys] : db.keysOfProfile)
        for (const auto& key : keys)
            add(wanted_.contains({key, name}) ? "key of" : "kept key of", name, key);
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
// the outcome is that of the other, unless the outer change alone runs out of them.
std::string Pair::wrong(const Outcome& outcome) {
    if (!inOrder_) {
        const auto ofOrder = [&](const Event& first, const Event& second) {
            return Copy::outcomeOf(std::make_unique<Copy>(base_, services_), {first, second});
        };
        inOrder_ = ofOrder(outer_, inner_);
        reversed_ = ofOrder(inner_, outer_);
    }
    if (outcome.ranOut() && inOrder_->ranOut()) return {};
    const auto& one = (inOrder_->ranOut() ? reversed_ : inOrder_)->lines();
    const auto& other = (reversed_->ranOut() ? inOrder_ : reversed_)->lines();
    std::string found = outcome.ranOut() ? "    out of indices\n" : "";
    for (const auto& line : outcome.lines())
        if (!one.contains(line) && !other.contains(line)) found += "    too much: " + line + "\n";
    for (const auto& line : one)
        if (other.contains(line) && !outcome.lines().contains(line))
            found += "    missing: " + line + "\n";
    return found;
}

}  // namespace Oracle

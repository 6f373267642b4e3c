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
    const Inputs in = inputsOf(world.in);
    addPaths(in, world);
    findWanted(in, world.in);
    addPolicies(world.in);
    if (const Nav::NavDb* db = world.navDb()) addDatabase(in, *db);
}

void Outcome::addPaths(const Inputs& in, const World& world) {
    const auto isResolved = [&](const VrfName& vrf) { return in.results.contains(vrf); };
    for (const auto& vrf : world.in.pathConfigDir->pathConfig())
        for (const auto& path : vrf.pathConfigEntry()) {
            if (!names_.emplace(path.pathIndex(), text(path.key())).second)
                add("index in use twice", path.key());
            add("path", vrf.vrfName(), path.key(), path.ipsecProfile());
        }
    for (const auto& vrf : world.in.navStatusDir->navPathStatusDir()->pathStatus())
        for (const auto& path : vrf.pathStatusEntry()) {
            const Nav::HwPathInfo& info = path.pathInfo();
            add("status", vrf.vrfName(), path.key());
            if (!isResolved(vrf.vrfName())) continue;
            add("status", vrf.vrfName(), path.key(), info.pathType, info.pathState, info.via,
                index(info.pathIndex), path.encapId() == Nav::noEncapId ? "-" : "encapsulated",
                path.programmed());
        }
    for (const auto& site : world.in.siteGroupStatus->siteGroupStatusEntry()) {
        add("site group", site.key());
        for (const U32 i : site.pathIndexEntry()) add("site group", site.key(), index(i));
    }
    for (const auto& vrf : world.in.nexthopConfig->vrf())
        for (const auto& addr : vrf.nexthop()) add("next hop", vrf.vrfName(), addr);
    for (const auto& request : world.in.ipsecPathConfigDir->ipsecPathConfig())
        if (isResolved(request.key().vrfName))
            add("request", request.key(), request.profile(), request.intfId(),
                index(static_cast<U32>(std::stoul(request.connectionName().substr(4)))));
    for (const auto& site : world.in.navStatusDir->navRemoteIpList()) add("site", site);
}

void Outcome::findWanted(const Inputs& in, const Nav::NavInputs& published) {
    for (const auto& vrf : published.navStatusDir->navRuleStatus())
        for (const auto& entry : vrf.navRuleEntry())
            for (const auto& site : published.siteGroupStatus->siteGroupStatusEntry()) {
                const auto profile = in.profiles.find(entry.lbProfileName);
                if (profile == in.profiles.end() ||
                    !profile->second.priorities.contains(site.key().name))
                    continue;
                const auto id = in.vrfIds.find(vrf.name());
                const Nav::LbProfileKey key{site.key().routerIp, entry.appProfileId,
                                            id == in.vrfIds.end() ? 0 : id->second};
                wanted_.insert({key, {}});
                wanted_.insert({key, entry.lbProfileName});
            }
}

void Outcome::addPolicies(const Nav::NavInputs& published) {
    for (const auto& vrf : published.navStatusDir->navRuleStatus()) {
        add("rules", vrf.name());
        for (const auto& entry : vrf.navRuleEntry()) add("rule", vrf.name(), entry);
    }
    for (const auto& lb : published.navStatusDir->navLbProfileStatus()->lbProfileStatusEntry()) {
        if (wanted_.contains({lb.key(), {}}))
            add("balance", lb.key(), lb.latency(), lb.jitter(), lb.lossRate());
        else
            add("kept balance", lb.key());
        for (const auto& member : lb.pathEntry())
            add("member", lb.key(), index(member.pathIndex), member.priority, member.groupName);
    }
    Flat rest;
    flatten(*published.navFeaturePolicyDir, "", rest);
    for (const auto& [place, value] : rest)
        if (!value.empty() && !place.ends_with("/version")) add("classification", place, value);
}

void Outcome::addDatabase(const Inputs& in, const Nav::NavDb& db) {
    add("database");
    for (const auto& path : db.pathKeyInfo())
        add("info", path.pathKey(), index(path.pathIndex()), path.siteGroupKey(),
            path.ipsecProfile(), path.vrfName());
    for (const auto& addr : db.addrToPathKeySet())
        for (const auto& key : addr.pathKey()) add("path of", addr.addr(), key);
    for (const auto& [addr, intf] : db.srcToIntfMapping()) add("interface of", addr, intf);
    for (const auto& group : db.pathGroupInfo()) {
        add("group", group.pgName());
        for (const auto& key : group.pathKeySet()) add("path of", group.pgName(), key);
        for (const auto& site : group.remoteIpList()) add("site of", group.pgName(), site);
    }
    // A VRF whose id was withdrawn keeps the one that was seen last.
    const auto isCurrent = [&](const VrfName& vrf, U32 id) {
        const auto found = in.vrfIds.find(vrf);
        return found != in.vrfIds.end() && found->second == id;
    };
    for (const auto& [vrf, id] : db.vrfNameToId())
        if (isCurrent(vrf, id)) add("VRF id", vrf, id);
    for (const auto& [id, vrf] : db.vrfIdToName())
        if (isCurrent(vrf, id)) add("VRF name", id, vrf);
    for (const auto& application : db.vrfApp()) add("application", application);
    for (const auto& profile : db.lbNameToLbKeySet())
        for (const auto& key : profile.lbKey())
            add(wanted_.contains({key, profile.lbName()}) ? "key of" : "kept key of",
                profile.lbName(), key);
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

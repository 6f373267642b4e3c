#include "tests/oracle/Oracle.h"

#include <algorithm>
#include <ranges>

namespace Oracle {

using Ipsec::ConnectionKey;
using Nav::LbProfileKey;
using Nav::NavRuleEntry;
using Nav::PathKey;
using Nav::PathState;
using Nav::PathType;
using Nav::SiteGroupKey;
using Shard::Fib::Via;

namespace {

template <class Map, class Key>
auto* find(Map& map, const Key& key) {
    const auto found = map.find(key);
    return found == map.end() ? nullptr : &found->second;
}

template <class T>
std::string text(const T& value) {
    return json(Vel::Codec<T>::datum(value));
}

// A place from its parts: literals as they are, keys in brackets.
template <class T>
std::string piece(const T& part) {
    if constexpr (std::is_convertible_v<const T&, const char*>)
        return part;
    else
        return "[" + Vel::Codec<T>::key(part) + "]";
}
template <class... Parts>
std::string at(const Parts&... parts) {
    return (piece(parts) + ...);
}

std::string pathAt(const VrfName& vrf, const PathKey& key) {
    return at("/pathConfigDir/pathConfig", vrf, "/pathConfigEntry", key);
}

// An entity that a check needs.
template <class E>
E& present(E* entity, const std::string& place) {
    if (!entity) throw Difference(place + ": missing");
    return *entity;
}

void hold(bool condition, const std::string& place, const char* expected) {
    if (!condition) throw Difference(place + ": expected " + expected);
}

// The lines of a place and of everything below it.
Flat below(const Flat& all, const std::string& place) {
    return {all.lower_bound(place), all.lower_bound(place + "~")};
}

const VrfName defaultVrf = "default";

std::set<NavRuleEntry> entriesOf(const Policy& policy) {
    std::set<NavRuleEntry> entries;
    for (const auto& [key, rule] : policy.rules) entries.insert({key, rule.appId, rule.profile});
    if (policy.hasDefault && !policy.defaultProfile.empty())
        entries.insert({Nav::NavConstants::defaultRuleKey, 0, policy.defaultProfile});
    return entries;
}

}  // namespace

template <class Values>
void Oracle::mustBeOneOf(const std::string& place, const Values& values) {
    Choice& choice = expected_[place];
    choice.required = true;
    for (const auto& value : values) choice.values.push_back(text(value));
}

// The value of the last check, unless another is expected.
void Oracle::mayKeep(const std::string& place) {
    const std::string* was = find(before_.published, place);
    if (was && !expected_.contains(place)) expected_[place].values.push_back(*was);
}

void Oracle::compare() const {
    for (const auto& [place, value] : seen_.published) {
        const Choice* choice = find(expected_, place);
        hold(choice || isOpen(place), place, "nothing");
        if (!choice || choice->values.empty() || std::ranges::count(choice->values, value) != 0)
            continue;
        std::string all;
        for (const std::string& each : choice->values) all += (all.empty() ? "" : " or ") + each;
        throw Difference(place + ": expected " + all + ", got " + value);
    }
    for (const auto& [place, choice] : expected_)
        hold(!choice.required || seen_.published.contains(place), place, "an entry");
}

void Oracle::check(const World& world, bool settled) {
    world_ = &world;
    now_ = inputsOf(world.in);
    seen_ = {world.published(), {}, {}, {}, {}};
    expected_.clear();
    settled_ = settled;
    fresh_ |= !last_.configured;
    if (!now_.configured) {  // nothing derived is left anywhere
        compare();
        *this = Oracle();
        return;
    }
    must("/navDb");
    withholdClaims();
    paths();
    database();
    vrfMaps();
    sites();
    statuses();
    siteGroups();
    nexthops();
    requests();
    reconcile();
    rules();
    classification();
    balances();
    compare();
    last_ = std::move(now_);
    before_ = std::move(seen_);
    fresh_ = false;
}

// ---- paths -----------------------------------------------------------------------------------

// Id 0 is an id for the default VRF only; for any other it means that the id is not known yet.
std::optional<U32> Oracle::vrfIdOf(const Inputs& in, const VrfName& vrf) {
    const U32* id = find(in.vrfIds, vrf);
    if (id && *id != 0) return *id;
    return vrf == defaultVrf ? std::optional<U32>(0) : std::nullopt;
}

Oracle::Claims Oracle::claimsIn(const Inputs& in) {
    Claims claims;
    for (const auto& [name, group] : in.groups)
        for (const IntfId& intfId : group.intfs) {
            const Interface* intf = find(in.interfaces, intfId);
            if (!intf || intf->addr.isZero()) continue;
            const auto vrfId = vrfIdOf(in, intf->vrf);
            if (!vrfId) continue;
            for (const auto& [site, destinations] : group.sites)
                for (const IpGenAddr& dst : destinations)
                    claims[{intf->addr, dst, *vrfId}].insert({{name, site}, intfId});
        }
    return claims;
}

// Clearing a group's profile deletes its paths, which come back only with an event that adds them:
// until a claim has been away, or the group gets a profile again, it does not count.
void Oracle::withholdClaims() {
    claims_ = claimsIn(now_);
    if (fresh_) {
        withheld_.clear();
        effectiveBefore_.clear();
    }
    std::erase_if(withheld_, [&](const auto& held) {
        const auto* claims = find(claims_, held.first);
        return !claims || !claims->contains(held.second) ||
               !now_.groups.at(held.second.site.name).ipsecProfile.empty();
    });
    withheldBefore_ = withheld_;
    for (const auto& [key, claims] : claims_)
        for (const Claim& claim : claims) {
            const Group* was = fresh_ ? nullptr : find(last_.groups, claim.site.name);
            if (was && !was->ipsecProfile.empty() &&
                now_.groups.at(claim.site.name).ipsecProfile.empty())
                withheld_.insert({key, claim});
        }
}

// Two interfaces with one address in one VRF are a mistake, or one of them is about to lose it:
// which of them the paths go by is open for as long as the address is there.
void Oracle::followAddresses() {
    if (fresh_) intfsOf_.clear();
    decltype(intfsOf_) now;
    for (const auto* interfaces : {&now_.interfaces, &now_.interfaces6})
        for (const auto& [id, intf] : *interfaces) now[{intf.addr, intf.vrf}].insert(id);
    for (auto& [source, intfs] : now) intfs.merge(intfsOf_[source]);
    intfsOf_ = std::move(now);
}

void Oracle::paths() {
    followAddresses();
    indices_.clear();
    claimants_.clear();
    for (const Claims* all : {&claims_, &effectiveBefore_})
        for (const auto& [key, claims] : *all)
            for (const Claim& claim : claims) claimants_.insert(claim.site.routerIp);
    Claims effectiveNow;
    for (const auto& [key, claims] : claims_) {
        std::set<Claim> effective, withheld;
        for (const Claim& claim : claims) {
            if (!withheld_.contains({key, claim})) effective.insert(claim);
            if (withheldBefore_.contains({key, claim})) withheld.insert(claim);
        }
        const VrfName& vrf = now_.interfaces.at(claims.begin()->intf).vrf;
        const std::string place = pathAt(vrf, key);
        // A path whose owner lets go may pass to a site whose group's profile was cleared earlier.
        const bool mayPass = !fresh_ && before_.published.contains(place) && !withheld.empty();
        if (!effective.empty() || (mayPass && seen_.published.contains(place)))
            path(key, vrf, effective, withheld);
        for (const Claim& claim : claims)
            if (!withheld_.contains({key, claim})) effectiveNow[key].insert(claim);
    }
    effectiveBefore_ = std::move(effectiveNow);
}

// A path belongs to the last that added it; when that lets go, to any other that lists it.
SiteGroupKey Oracle::owner(const PathKey& key, const std::set<Claim>& effective,
                           const std::set<Claim>& withheld) {
    const auto* effectiveBefore = find(effectiveBefore_, key);
    std::set<SiteGroupKey> adders, holders, heirs;
    const Live* was = fresh_ ? nullptr : find(before_.live, key);
    for (const Claim& claim : effective) {
        const Group* group = fresh_ ? nullptr : find(last_.groups, claim.site.name);
        if (!effectiveBefore || !effectiveBefore->contains(claim) ||
            (group && group->ipsecProfile != now_.groups.at(claim.site.name).ipsecProfile))
            adders.insert(claim.site);
        if (was && was->owner == claim.site) holders.insert(claim.site);
        heirs.insert(claim.site);
    }
    // Which of its interfaces the owner had it by is not known: if one goes, it may let go.
    if (effectiveBefore)
        for (const Claim& claim : *effectiveBefore)
            if (!effective.contains(claim)) holders.clear();
    for (const Claim& claim : withheld) heirs.insert(claim.site);
    const std::string place = at("/navDb/pathKeyInfo", key);
    must(place);
    mustBeOneOf(place + "/siteGroupKey", !adders.empty()    ? adders
                                         : !holders.empty() ? holders
                                                            : heirs);
    return present(present(world_->navDb(), "/navDb").pathKeyInfo(key), place).siteGroupKey();
}

void Oracle::path(const PathKey& key, const VrfName& vrf, const std::set<Claim>& effective,
                  const std::set<Claim>& withheld) {
    const std::string place = pathAt(vrf, key);
    const SiteGroupKey site = owner(key, effective, withheld);
    const Nav::PathConfig& config = present(world_->in.pathConfigDir->pathConfig(vrf), place);
    const U32 index = present(config.pathConfigEntry(key), place).pathIndex();
    const Live* was =
        fresh_ || !before_.published.contains(place) ? nullptr : find(before_.live, key);
    Live path{
        vrf, site, intfsOf_.at({key.srcAddr, vrf}), index, now_.groups.at(site.name).ipsecProfile,
        !was};
    if (std::ranges::none_of(effective, [&](const Claim& claim) { return claim.site == site; }))
        for (const Claim& claim : withheld)  // it passed to this one, which counts again
            if (claim.site == site) withheld_.erase({key, claim});
    if (was) path.moved = path.intfs.size() > 1 || was->owner != site;
    must(place);
    must(place + "/pathIndex", was ? was->index : index);
    must(place + "/ipsecProfile", path.ipsecProfile);
    must(place + "/pathType", PathType::invalidPath);
    hold(index >= 1 && index <= Nav::NavConstants::maxPathIndex && indices_.insert(index).second,
         place + "/pathIndex", "an index of its own");
    seen_.live.emplace(key, std::move(path));
}

void Oracle::database() {
    std::map<IpGenAddr, std::set<IntfId>> intfsOf;
    for (const auto& [key, path] : seen_.live) {
        const std::string info = at("/navDb/pathKeyInfo", key);
        must(info + "/pathIndex", path.index);
        must(info + "/vrfName", path.vrf);
        must(info + "/ipsecProfile", path.ipsecProfile);
        for (const IpGenAddr& addr : {key.srcAddr, key.dstAddr}) {
            must(at("/navDb/addrToPathKeySet", addr));
            must(at("/navDb/addrToPathKeySet", addr, "/pathKey", key));
        }
        must(at("/navDb/pathGroupInfo", path.owner.name, "/pathKeySet", key));
        intfsOf[key.srcAddr].insert(path.intfs.begin(), path.intfs.end());
    }
    for (const auto& [name, group] : now_.groups) must(at("/navDb/pathGroupInfo", name));
    for (const auto& [addr, intfs] : intfsOf)
        mustBeOneOf(at("/navDb/srcToIntfMapping", addr), intfs);
    for (const auto& [id, intf] : now_.interfaces)  // a mapping may outlive the paths
        if (!intfsOf.contains(intf.addr))
            expected_[at("/navDb/srcToIntfMapping", intf.addr)].values.push_back(text(id));
}

// The ids that count stand in both maps; what else is there was left when it counted.
void Oracle::vrfMaps() {
    const std::string ids = "/navDb/vrfNameToId", names = "/navDb/vrfIdToName";
    std::map<VrfName, U32> current;
    for (const auto& [vrf, id] : now_.vrfIds)
        if (const auto known = vrfIdOf(now_, vrf)) current[vrf] = *known;
    for (const auto& [key, path] : seen_.live) current[path.vrf] = key.vrfId;
    for (const auto& [vrf, id] : current) must(ids + piece(vrf), id), must(names + piece(id), vrf);
    for (const auto& [place, value] : seen_.published)  // the default VRF has id 0 at first
        if (place == ids + piece(defaultVrf) ||
            (place.starts_with(names + "[") && value == text(defaultVrf)))
            may(place);
    if (fresh_) return;
    for (const auto& [vrf, id] : last_.vrfIds) {  // a VRF with another id loses the earlier one
        const std::string* name = find(before_.published, names + piece(id));
        if (name && *name == text(vrf) && current.contains(vrf) && now_.vrfIds.contains(vrf) &&
            current.at(vrf) != id)
            before_.published.erase(names + piece(id));
    }
    for (const std::string& map : {ids, names})
        for (const auto& [place, value] : below(before_.published, map)) mayKeep(place);
}

// Sites that some group configures, those with a destination at least.
void Oracle::sites() {
    for (const auto& [name, group] : now_.groups)
        for (const auto& [site, destinations] : group.sites)
            for (const std::string& place :
                 {at("/navDb/pathGroupInfo", name, "/remoteIpList", site),
                  at("/navStatusDir/navRemoteIpList", site)})
                destinations.empty() ? may(place) : must(place);
}

// ---- what became of the paths ----------------------------------------------------------------

const Connection* Oracle::connectionOf(const Inputs& in, const PathKey& key, const VrfName& vrf) {
    return find(in.connections, ConnectionKey{key.srcAddr, key.dstAddr, vrf});
}

void Oracle::statuses() {
    for (auto& [key, path] : seen_.live) {
        const std::string place =
            at("/navStatusDir/navPathStatusDir/pathStatus", path.vrf, "/pathStatusEntry", key);
        const auto* inVrf = world_->in.navStatusDir->navPathStatusDir()->pathStatus(path.vrf);
        const auto& got = present(present(inVrf, place).pathStatusEntry(key), place);
        path.info = got.pathInfo(), path.encapId = got.encapId();
        path.programmed = got.programmed();
        const Live* was = path.isNew ? nullptr : &before_.live.at(key);
        must(place);
        mustBeOneOf(place + "/programmed", programmedFor(key, path, was));
        if (now_.results.contains(path.vrf)) {
            expected_[place + "/pathInfo"] = {infosFor(key, path, was), true};
            mustBeOneOf(place + "/encapId", encapIdsFor(key, path, was));
            continue;
        }
        // Nobody resolves the VRF: what stood there stays.
        may(place + "/pathInfo"), may(place + "/encapId");
        if (!connectionOf(now_, key, path.vrf) && (fresh_ || !connectionOf(last_, key, path.vrf)))
            mustBeOneOf(place + "/pathInfo",
                        std::vector<Nav::HwPathInfo>{{}, was ? was->info : Nav::HwPathInfo()});
    }
}

// With the encapsulation that the path has.
std::vector<std::string> Oracle::infosFor(const PathKey& key, const Live& path,
                                          const Live* was) const {
    const bool encapsulated = path.encapId != Nav::noEncapId;
    const bool secured = encapsulated || !path.ipsecProfile.empty();
    std::set types{secured ? PathType::securedPath : PathType::unsecuredPath};
    // An established connection secures a path that has no profile until its route changes.
    if (const Connection* connection = connectionOf(now_, key, path.vrf);
        connection && connection->state == Ipsec::Path::established)
        types.insert(PathType::securedPath);
    std::vector<std::string> infos;
    for (const Via& via : viasFor(key, path, was))
        for (const PathType type : types)
            for (const PathState state : {PathState::unresolved, PathState::resolved}) {
                const bool open = type == PathType::unsecuredPath || encapsulated;
                // A route that does not fit takes the connection's id from a path that has no
                // profile, and nothing else.
                const bool either =
                    path.ipsecProfile.empty() && secured != (type == PathType::securedPath);
                if (either || (state == PathState::resolved) == (open && via != Via{}))
                    infos.push_back(text(Nav::HwPathInfo{type, state, path.index, via}));
            }
    return infos;
}

std::vector<Via> Oracle::viasFor(const PathKey& key, const Live& path, const Live* was) const {
    const auto& results = now_.results.at(path.vrf);
    const U64* fecId = find(results, key.dstAddr);
    std::vector<Via> outcomes;  // of a review now; none: the path stays as it was
    if (!fecId) {
        outcomes = {Via{}};
    } else if (const auto* fec = find(key.dstAddr.isV6() ? now_.fecs6 : now_.fecs, *fecId)) {
        for (const IntfId& intf : path.intfs) {
            auto last = std::find_if(fec->rbegin(), fec->rend(),
                                     [&](const Via& via) { return via.intfId == intf; });
            if (last != fec->rend()) outcomes.push_back(*last);
        }
    }
    std::vector<Via> allowed = outcomes;
    const bool late = !path.isNew && !hadResolver(path.vrf);
    const bool unfit = outcomes.empty() || !settled_;
    // Over which of two interfaces with one address the path goes is not known here.
    const bool either = path.intfs.size() > 1;
    // A reviewer that came just now finds the via of the last one, but no reason to keep it.
    if (path.moved || either || (unfit && (path.isNew || late))) allowed.push_back(Via{});
    if (was && (unfit || either)) allowed.push_back(was->info.via);
    return allowed;
}

std::set<U32> Oracle::encapIdsFor(const PathKey& key, const Live& path, const Live* was) const {
    const Connection* now = connectionOf(now_, key, path.vrf);
    const Connection* last = fresh_ ? nullptr : connectionOf(last_, key, path.vrf);
    const U32 current =
        now && now->state == Ipsec::Path::established ? now->encapId : Nav::noEncapId;
    if (path.ipsecProfile.empty()) return {Nav::noEncapId, current};
    const bool changed = !now != !last || (now && !(*now == *last));
    // Made for one site and passed to another at once, it was given another profile.
    if (path.isNew && claims_.at(key).size() > 1) return {current, Nav::noEncapId};
    if (path.isNew || !hadResolver(path.vrf) || changed) return {current};
    if (path.moved) return {current, Nav::noEncapId, was->encapId};
    // With another profile the path waits for the connection's next event.
    if (was->ipsecProfile != path.ipsecProfile) return {Nav::noEncapId};
    return {was->encapId};
}

// The entry with the path's index decides; where there is only one with another, it may.
std::set<bool> Oracle::programmedFor(const PathKey& key, const Live& path, const Live* was) const {
    std::set<bool> allowed{false};
    if (const bool* own =
            find(now_.hardware, Nav::HwPathKey{key.srcAddr, key.dstAddr, key.vrfId, path.index}))
        allowed = {*own};
    else
        for (const auto& [entry, programmed] : now_.hardware)
            if (entry.pathKey() == key) allowed.insert(programmed);
    if (!now_.results.contains(path.vrf)) {
        allowed.insert(false);
        if (was) allowed.insert(was->programmed);
    }
    return allowed;
}

// The indices of the programmed paths, as far as somebody resolves their VRF.
void Oracle::siteGroups() {
    for (const auto& [key, path] : seen_.live) {
        const std::string site = at("/siteGroupStatus/siteGroupStatusEntry", path.owner);
        const std::string member = site + at("/pathIndexEntry", path.index);
        may(site);
        if (!now_.results.contains(path.vrf))
            may(member);
        else if (path.programmed)
            must(site), must(member);
    }
    for (const auto& site : world_->in.siteGroupStatus->siteGroupStatusEntry()) {
        auto& indices = seen_.siteGroups[site.key()];
        for (const U32 index : site.pathIndexEntry()) indices.insert(index);
    }
}

// Requested is what paths of the VRF use and nobody has resolved, and no more than they use.
void Oracle::nexthops() {
    for (const auto& [key, path] : seen_.live) {
        const std::string vrf = at("/nexthopConfig/vrf", path.vrf);
        const std::string place = vrf + at("/nexthop", key.dstAddr);
        must(vrf);
        if (const auto* results = find(now_.results, path.vrf))
            settled_ && !results->contains(key.dstAddr) ? must(place) : may(place);
    }
    for (const auto& [name, group] : now_.groups)
        for (const IntfId& id : group.intfs)
            if (const Interface* intf = find(now_.interfaces, id); intf && !intf->addr.isZero())
                must(at("/nexthopConfig/vrf", intf->vrf));
    for (const auto& [place, value] : below(before_.published, "/nexthopConfig/vrf")) {
        const size_t begin = place.find('[') + 1;
        const VrfName vrf = place.substr(begin, place.find(']') - begin);
        if (!now_.results.contains(vrf) && !hadResolver(vrf)) mayKeep(place);
    }
}

// One IPsec connection for each secured path, as far as somebody resolves its VRF.
void Oracle::requests() {
    for (const auto& [key, path] : seen_.live) {
        if (path.ipsecProfile.empty() || !now_.results.contains(path.vrf)) continue;
        const std::string place = at("/ipsecPathConfigDir/ipsecPathConfig",
                                     ConnectionKey{key.srcAddr, key.dstAddr, path.vrf});
        must(place);
        must(place + "/profile", path.ipsecProfile);
        mustBeOneOf(place + "/intfId", path.intfs);
        must(place + "/connectionName", String("Path" + std::to_string(path.index)));
    }
    if (fresh_) return;
    for (const auto& [place, value] :
         below(before_.published, "/ipsecPathConfigDir/ipsecPathConfig")) {
        const size_t begin = place.rfind(',') + 1;
        if (!now_.results.contains(place.substr(begin, place.find(']') - begin))) mayKeep(place);
    }
}

// ---- policies --------------------------------------------------------------------------------

std::optional<Oracle::Bound> Oracle::boundTo(const Inputs& in, const VrfName& vrf) {
    const String* policy = find(in.bindings, vrf);
    const auto id = vrfIdOf(in, vrf);
    if (!policy || policy->empty() || !in.policies.contains(*policy)) return std::nullopt;
    if (!in.vrfIds.contains(vrf) || !id) return std::nullopt;
    return Bound{*policy, *id};
}

// A VRF takes its policy as it is when it is bound and when the policy's version is raised.
void Oracle::reconcile() {
    if (fresh_) reconciled_.clear();
    std::erase_if(reconciled_, [&](const auto& vrf) { return !boundTo(now_, vrf.first); });
    for (const auto& [vrf, policy] : now_.bindings) {
        const auto bound = boundTo(now_, vrf);
        if (!bound) continue;
        const Policy& current = now_.policies.at(policy);
        const Policy* last = fresh_ ? nullptr : find(last_.policies, policy);
        if (!fresh_ && !last)
            reconciled_[vrf] = {};  // it has just been made, and had no rules then
        else if (fresh_ || !(boundTo(last_, vrf) == bound) || last->version != current.version)
            reconciled_[vrf] = current;
    }
}

void Oracle::rules() {
    std::map<Nav::VrfAppKey, Nav::VrfApp> applications;
    for (const auto& [vrf, policy] : reconciled_) {
        const std::string place = at("/navStatusDir/navRuleStatus", vrf);
        must(place), must(place + "/vrfId", U32{0});
        seen_.rules[vrf] = entriesOf(policy);
        for (const NavRuleEntry& entry : seen_.rules[vrf]) must(place + at("/navRuleEntry", entry));
        auto named = [&, &vrf = vrf](U32 appId, const String& name) {
            const Nav::VrfAppKey key{*vrfIdOf(now_, vrf), appId};
            applications[key] = {key, vrf.str(), name};
        };
        for (const auto& [key, rule] : policy.rules) named(rule.appId, rule.appName);
        if (policy.hasDefault && !policy.defaultProfile.empty()) named(0, "default_app");
    }
    for (const auto& [key, application] : applications) must(at("/navDb/vrfApp", key), application);
}

void Oracle::classification() {
    for (const auto& [vrf, policy] : now_.bindings) {
        const std::string place =
            at("/navFeaturePolicyDir/appliedPolicy", U32{0}, "/policyForTarget", vrf);
        if (reconciled_.contains(vrf))
            must(place, policy);
        else if (!policy.empty())
            mayKeep(place);  // a deleted policy leaves it
    }
    for (const auto& [name, policy] : now_.policies) {
        const std::string place = at("/navFeaturePolicyDir/featurePolicy", name);
        const Policy* last = fresh_ ? nullptr : find(last_.policies, name);
        if (last && last->version == policy.version) {
            for (const auto& [line, value] : below(before_.published, place))
                expected_[line] = {{value}, true};
            continue;
        }
        std::map<U32, String> applications;
        if (last || fresh_)
            for (const auto& [key, rule] : policy.rules) applications[key] = rule.appName;
        if (applications.empty() && !seen_.published.contains(place)) continue;
        must(place);
        for (const auto& [key, application] : applications)
            must(place + at("/appProfilePriority", key), application);
        const std::string* was = find(before_.published, place + "/version");
        const U32 version = was ? static_cast<U32>(std::stoul(*was)) : 0;
        mustBeOneOf(place + "/version", fresh_ ? std::set<U32>{1, version, version + 1}
                                               : std::set<U32>{version + !applications.empty()});
    }
}

// ---- load balancing --------------------------------------------------------------------------

// The first rule for the application whose profile lists the group.
const NavRuleEntry* Oracle::governing(U32 vrfId, U32 appId, const String& group) const {
    for (const auto& [vrf, entries] : seen_.rules) {
        if (boundTo(now_, vrf)->vrfId != vrfId) continue;
        for (const NavRuleEntry& entry : entries) {  // in the order of their keys
            const Profile* profile = find(now_.profiles, entry.lbProfileName);
            if (entry.appProfileId == appId && profile &&
                (group.empty() || profile->priorities.contains(group)))
                return &entry;
        }
    }
    return nullptr;
}

void Oracle::balances() {
    struct Expected {
        std::map<U32, Nav::PathWithPriority> members;
        std::map<NavRuleEntry, Constraints> constraints;  // by the rules that govern a group
    };
    std::map<LbProfileKey, Expected> expected;
    for (const auto& [vrf, entries] : seen_.rules)
        for (const NavRuleEntry& entry : entries)
            for (const auto& [site, indices] : seen_.siteGroups) {
                const LbProfileKey key{site.routerIp, entry.appProfileId,
                                       boundTo(now_, vrf)->vrfId};
                const auto* rule = governing(key.vrfId, key.appId, site.name);
                if (!rule) continue;
                const Profile& profile = now_.profiles.at(rule->lbProfileName);
                expected[key].constraints.emplace(*rule, profile.constraints);
                for (const U32 index : indices)
                    expected[key].members[index] = {index, profile.priorities.at(site.name),
                                                    site.name};
            }
    const std::string all = "/navStatusDir/navLbProfileStatus/lbProfileStatusEntry";
    for (const auto& [key, want] : expected) {
        const std::string place = all + piece(key);
        const Constraints& constraints = want.constraints.begin()->second;
        must(place);
        must(place + "/latency", constraints.latency);
        must(place + "/jitter", constraints.jitter);
        must(place + "/lossRate", constraints.lossRate);
        for (const auto& [index, member] : want.members)
            must(place + at("/pathEntry", index), member);
    }
    std::set<U32> ids;
    std::set<LbProfileKey> keysOfProfiles;
    for (const auto& profile : world_->navDb()->lbNameToLbKeySet())
        for (const LbProfileKey& key : profile.lbKey()) {
            keysOfProfiles.insert(key);
            may(at("/navDb/lbNameToLbKeySet", profile.lbName(), "/lbKey", key));
        }
    for (const auto& got : world_->in.navStatusDir->navLbProfileStatus()->lbProfileStatusEntry()) {
        const LbProfileKey key = got.key();
        const std::string place = all + piece(key);
        Balance& balance = seen_.balances[key] = {got.genId(), got.lbIndex(), {}};
        for (const auto& member : got.pathEntry()) balance.members[member.pathIndex] = member;
        hold(balance.id >= 1 && balance.id <= Nav::NavConstants::maxLbIndex &&
                 ids.insert(balance.id).second,
             place + "/lbIndex", "an id of its own");
        hold(keysOfProfiles.erase(key), place, "a profile with this key");
        for (const char* attribute : {"", "/lbIndex", "/genId", "/latency", "/jitter", "/lossRate"})
            may(place + attribute);
        // A vanished site keeps its keys until the rule or the profile is removed.
        hold(expected.contains(key) ||
                 (governing(key.vrfId, key.appId, "") &&
                  (claimants_.contains(key.vtepIp) || (!fresh_ && before_.balances.contains(key)))),
             place, "nothing");
    }
    hold(keysOfProfiles.empty(), "/navDb/lbNameToLbKeySet", "no other keys");
    if (!fresh_) balancesOver();
}

// Whether the VRFs with an id have the bindings and rules that they had.
bool Oracle::keepsRules(U32 vrfId) const {
    const auto rulesIn = [&](const Inputs& in, const Results& results) {
        std::map<VrfName, std::pair<String, std::set<NavRuleEntry>>> rules;
        for (const auto& [vrf, entries] : results.rules)
            if (const auto bound = boundTo(in, vrf); bound && bound->vrfId == vrfId)
                rules[vrf] = {bound->policy, entries};
        return rules;
    };
    return rulesIn(last_, before_) == rulesIn(now_, seen_);
}

// What lives on keeps its id, and its generation tells every change of the members.
void Oracle::balancesOver() {
    const auto indicesIn = [](const Results& results) {
        std::set<std::pair<SiteGroupKey, U32>> all;
        for (const auto& [site, indices] : results.siteGroups)
            for (const U32 index : indices) all.insert({site, index});
        return all;
    };
    Inputs onlyHardware = last_;
    onlyHardware.hardware = now_.hardware;
    const bool exact = onlyHardware == now_;
    std::vector<std::pair<SiteGroupKey, U32>> changed;
    std::ranges::set_symmetric_difference(indicesIn(seen_), indicesIn(before_),
                                          std::back_inserter(changed));
    const bool sameProfiles =
        std::ranges::equal(last_.profiles | std::views::keys, now_.profiles | std::views::keys);
    for (const auto& [key, was] : before_.balances)  // vanished sites keep theirs: ids suffice
        hold(seen_.balances.contains(key) || last_.profiles != now_.profiles ||
                 !keepsRules(key.vrfId),
             at("lbProfileStatusEntry", key), "an entry");
    for (const auto& [key, got] : seen_.balances) {
        const std::string place =
            "/navStatusDir/navLbProfileStatus/lbProfileStatusEntry" + piece(key);
        const Balance* was = find(before_.balances, key);
        U32 steps = 0;  // one for each change, however many rules share the key
        for (const auto& [site, index] : changed)
            steps += site.routerIp == key.vtepIp && governing(key.vrfId, key.appId, site.name);
        if (exact) must(place + "/genId", (was ? was->generation : 0) + steps);
        if (!was) continue;
        if (sameProfiles && keepsRules(key.vrfId)) must(place + "/lbIndex", was->id);
        if (was->id != got.id) continue;
        hold(got.generation > was->generation ||
                 (got.generation == was->generation && got.members == was->members),
             place + "/genId", "a later generation");
    }
}

}  // namespace Oracle

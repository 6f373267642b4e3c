#include "tests/oracle/Oracle.h"

#include <algorithm>
#include <limits>

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

template <class T>
std::string text(const T& v) {
    std::string out;
    Vel::Codec<T>::text(out, v);
    return out;
}
template <class Range>
std::string textOfAll(const Range& range) {
    std::string out;
    for (const auto& v : range) out += (out.empty() ? "{" : ", ") + text(v);
    return out.empty() ? "{}" : out + "}";
}
template <class T>
std::string text(const std::set<T>& all) {
    return textOfAll(all);
}
template <class K, class V>
std::string text(const std::map<K, V>& all) {
    std::string out;
    for (const auto& [k, v] : all) out += (out.empty() ? "{" : ", ") + text(k) + ": " + text(v);
    return out.empty() ? "{}" : out + "}";
}
// The pieces of a place: phrases as they are, keys in their text form.
template <class T>
std::string piece(const T& key) {
    if constexpr (std::is_convertible_v<const T&, std::string>)
        return key;
    else
        return Vel::Codec<T>::key(key);
}

template <class... Place>
[[noreturn]] void fail(const std::string& expected, const std::string& got, const Place&... place) {
    throw Difference((piece(place) + ...) + ": expected " + expected + ", got " + got);
}
template <class T, class... Place>
void same(const T& expected, const T& got, const Place&... place) {
    if (!(expected == got)) fail(text(expected), text(got), place...);
}
template <class Allowed, class T, class... Place>
void oneOf(const Allowed& allowed, const T& got, const Place&... place) {
    if (std::find(allowed.begin(), allowed.end(), got) == allowed.end())
        fail("one of " + textOfAll(allowed), text(got), place...);
}
template <class... Place>
void hold(bool condition, const char* expected, const Place&... place) {
    if (!condition) fail(expected, "otherwise", place...);
}
template <class A, class B>
void sameKeys(const A& expected, const B& got, const char* place) {
    for (const auto& [key, v] : expected)
        if (!got.contains(key)) fail("an entry", "nothing", place, "[", key, "]");
    for (const auto& [key, v] : got)
        if (!expected.contains(key)) fail("nothing", "an entry", place, "[", key, "]");
}

template <class Map, class Key>
auto* find(Map& map, const Key& key) {
    const auto found = map.find(key);
    return found == map.end() ? nullptr : &found->second;
}
// An entry of a directory that keeps one map per VRF.
template <class Map>
auto* find(const Map& map, const VrfName& vrf, const PathKey& key) {
    const auto* inVrf = find(map, vrf);
    return inVrf ? find(*inVrf, key) : nullptr;
}

const VrfName defaultVrf = "default";

std::set<NavRuleEntry> entriesOf(const Policy& policy) {
    std::set<NavRuleEntry> entries;
    for (const auto& [key, rule] : policy.rules) entries.insert({key, rule.appId, rule.profile});
    if (policy.hasDefault && !policy.defaultProfile.empty())
        entries.insert({Nav::NavConstants::defaultRuleKey, 0, policy.defaultProfile});
    return entries;
}

std::set<std::pair<SiteGroupKey, U32>> indicesIn(const Published& published) {
    std::set<std::pair<SiteGroupKey, U32>> all;
    for (const auto& [site, indices] : published.siteGroups)
        for (const U32 index : indices) all.insert({site, index});
    return all;
}

}  // namespace

void Oracle::check(Inputs now, Published seen, bool settled) {
    now_ = std::move(now);
    seen_ = std::move(seen);
    settled_ = settled;
    fresh_ |= !last_.configured;
    if (!now_.configured) {
        nothing();
        *this = Oracle();
        return;
    }
    hold(seen_.db.has_value(), "a path database", "/navDb");
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
    last_ = std::move(now_);
    before_ = std::move(seen_);
    fresh_ = false;
}

// While the feature is off nothing derived is left anywhere.
void Oracle::nothing() const {
    hold(!seen_.db, "null", "/navDb");
    hold(seen_.paths.empty(), "nothing", "/pathConfigDir");
    hold(seen_.statuses.empty(), "nothing", "/navStatusDir/navPathStatusDir");
    hold(seen_.siteGroups.empty(), "nothing", "/siteGroupStatus");
    for (const auto& [vrf, nexthops] : seen_.nexthops)
        same({}, nexthops, "/nexthopConfig/vrf[", vrf, "]/nexthop");
    hold(seen_.requests.empty(), "nothing", "/ipsecPathConfigDir");
    same({}, seen_.sites, "/navStatusDir/navRemoteIpList");
    hold(seen_.rules.empty(), "nothing", "/navStatusDir/navRuleStatus");
    hold(seen_.balances.empty(), "nothing", "/navStatusDir/navLbProfileStatus");
    hold(seen_.featurePolicies.empty(), "nothing", "/navFeaturePolicyDir/featurePolicy");
    same({}, seen_.appliedPolicies, "/navFeaturePolicyDir/appliedPolicy[0]");
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
    live_.clear();
    followAddresses();
    claimants_.clear();
    for (const Claims* all : {&claims_, &effectiveBefore_})
        for (const auto& [key, claims] : *all)
            for (const Claim& claim : claims) claimants_.insert(claim.site.routerIp);
    std::set<U32> indices;
    Claims effectiveNow;
    for (const auto& [key, claims] : claims_) {
        std::set<Claim> effective, withheld;
        for (const Claim& claim : claims) {
            if (!withheld_.contains({key, claim})) effective.insert(claim);
            if (withheldBefore_.contains({key, claim})) withheld.insert(claim);
        }
        const VrfName& vrf = now_.interfaces.at(claims.begin()->intf).vrf;
        // A path whose owner lets go may pass to a site whose group's profile was cleared earlier.
        const bool mayPass = !fresh_ && pathSeen(before_, key, vrf) && !withheld.empty();
        if (!effective.empty() || (mayPass && pathSeen(seen_, key, vrf)))
            path(key, vrf, effective, withheld);
        for (const Claim& claim : claims)
            if (!withheld_.contains({key, claim})) effectiveNow[key].insert(claim);
    }
    for (const auto& [vrf, inVrf] : seen_.paths)
        for (const auto& [key, got] : inVrf) {
            const Live* path = find(live_, key);
            if (!path || path->vrf != vrf)
                fail("nothing", "an entry", "/pathConfigDir/pathConfig[", vrf, "]/pathConfigEntry[",
                     key, "]");
            hold(got.index >= 1 && got.index <= Nav::NavConstants::maxPathIndex &&
                     indices.insert(got.index).second,
                 "an index of its own", "pathIndex of ", key);
        }
    effectiveBefore_ = std::move(effectiveNow);
}

// A path belongs to the last that added it; when that lets go, to any other that lists it.
SiteGroupKey Oracle::owner(const PathKey& key, const std::set<Claim>& effective,
                           const std::set<Claim>& withheld) const {
    const auto* effectiveBefore = find(effectiveBefore_, key);
    std::set<SiteGroupKey> adders, holders, heirs;
    const PathInfo* was = fresh_ || !before_.db ? nullptr : find(before_.db->paths, key);
    for (const Claim& claim : effective) {
        const Group* group = fresh_ ? nullptr : find(last_.groups, claim.site.name);
        if (!effectiveBefore || !effectiveBefore->contains(claim) ||
            (group && group->ipsecProfile != now_.groups.at(claim.site.name).ipsecProfile))
            adders.insert(claim.site);
        if (was && was->siteGroup == claim.site) holders.insert(claim.site);
        heirs.insert(claim.site);
    }
    // Which of its interfaces the owner had it by is not known: if one goes, it may let go.
    if (effectiveBefore)
        for (const Claim& claim : *effectiveBefore)
            if (!effective.contains(claim)) holders.clear();
    for (const Claim& claim : withheld) heirs.insert(claim.site);
    const PathInfo* got = find(seen_.db->paths, key);
    hold(got, "an entry", "/navDb/pathKeyInfo[", key, "]");
    oneOf(!adders.empty()    ? adders
          : !holders.empty() ? holders
                             : heirs,
          got->siteGroup, "/navDb/pathKeyInfo[", key, "]/siteGroupKey");
    return got->siteGroup;
}

void Oracle::path(const PathKey& key, const VrfName& vrf, const std::set<Claim>& effective,
                  const std::set<Claim>& withheld) {
    auto place = [&](const char* attribute) {
        return "/pathConfigDir/pathConfig[" + vrf.str() + "]/pathConfigEntry[" + piece(key) + "]" +
               attribute;
    };
    const Path* got = pathSeen(seen_, key, vrf);
    if (!got) fail("an entry", "nothing", place(""));
    const SiteGroupKey site = owner(key, effective, withheld);
    const Path* was = fresh_ ? nullptr : pathSeen(before_, key, vrf);
    Live path{vrf,
              site,
              intfsOf_.at({key.srcAddr, vrf}),
              got->index,
              now_.groups.at(site.name).ipsecProfile,
              !was,
              false};
    if (std::ranges::none_of(effective, [&](const Claim& claim) { return claim.site == site; }))
        for (const Claim& claim : withheld)  // it passed to this one, which counts again
            if (claim.site == site) withheld_.erase({key, claim});
    if (was) {
        if (was->index != got->index) fail(text(was->index), text(got->index), place("/pathIndex"));
        path.moved = path.intfs.size() > 1 || before_.db->paths.at(key).siteGroup != site;
    }
    if (got->ipsecProfile != path.ipsecProfile)
        fail(text(path.ipsecProfile), text(got->ipsecProfile), place("/ipsecProfile"));
    if (got->type != PathType::invalidPath)
        fail("invalidPath", stringValue(got->type), place("/pathType"));
    live_.emplace(key, std::move(path));
}

const Path* Oracle::pathSeen(const Published& in, const PathKey& key, const VrfName& vrf) const {
    return find(in.paths, vrf, key);
}

void Oracle::database() const {
    const Published::Database& db = *seen_.db;
    std::map<IpGenAddr, std::set<PathKey>> pathsOfAddr;
    std::map<IpGenAddr, std::set<IntfId>> intfsOf;
    std::map<String, std::set<PathKey>> pathsOfGroup;
    sameKeys(live_, db.paths, "/navDb/pathKeyInfo");
    for (const auto& [key, path] : live_) {
        const PathInfo& got = db.paths.at(key);
        same(path.index, got.index, "/navDb/pathKeyInfo[", key, "]/pathIndex");
        same(path.vrf, got.vrf, "/navDb/pathKeyInfo[", key, "]/vrfName");
        same(path.ipsecProfile, got.ipsecProfile, "/navDb/pathKeyInfo[", key, "]/ipsecProfile");
        pathsOfAddr[key.srcAddr].insert(key);
        pathsOfAddr[key.dstAddr].insert(key);
        intfsOf[key.srcAddr].insert(path.intfs.begin(), path.intfs.end());
        pathsOfGroup[path.owner.name].insert(key);
    }
    sameKeys(pathsOfAddr, db.pathsOfAddr, "/navDb/addrToPathKeySet");
    for (const auto& [addr, keys] : pathsOfAddr)
        same(keys, db.pathsOfAddr.at(addr), "/navDb/addrToPathKeySet[", addr, "]/pathKey");
    for (const auto& [addr, intfs] : intfsOf) {
        const IntfId* got = find(db.intfOf, addr);
        hold(got, "an entry", "/navDb/srcToIntfMapping[", addr, "]");
        oneOf(intfs, *got, "/navDb/srcToIntfMapping[", addr, "]");
    }
    for (const auto& [addr, intf] : db.intfOf) {
        const Interface* owner = find(now_.interfaces, intf);
        hold(intfsOf.contains(addr) || (owner && owner->addr == addr), "nothing",
             "/navDb/srcToIntfMapping[", addr, "]");
    }
    sameKeys(now_.groups, db.groups, "/navDb/pathGroupInfo");
    for (const auto& [name, group] : db.groups)
        same(pathsOfGroup[name], group.paths, "/navDb/pathGroupInfo[", name, "]/pathKeySet");
}

// The ids that count stand in both maps; what else is there was left when it counted.
void Oracle::vrfMaps() const {
    const Published::Database& db = *seen_.db;
    std::map<VrfName, U32> ids;
    for (const auto& [vrf, id] : now_.vrfIds)
        if (const auto known = vrfIdOf(now_, vrf)) ids[vrf] = *known;
    for (const auto& [key, path] : live_) ids[path.vrf] = key.vrfId;
    for (const auto& [vrf, id] : ids) {
        const U32* gotId = find(db.vrfId, vrf);
        const VrfName* gotName = find(db.vrfName, id);
        hold(gotId && *gotId == id, "its id", "/navDb/vrfNameToId[", vrf, "]");
        hold(gotName && *gotName == vrf, "its name", "/navDb/vrfIdToName[", id, "]");
        const U32* was = fresh_ ? nullptr : find(last_.vrfIds, vrf);
        const bool changed = was && now_.vrfIds.contains(vrf) && *was != id;
        const VrfName* stale = changed ? find(db.vrfName, *was) : nullptr;
        hold(!stale || *stale != vrf, "nothing", "/navDb/vrfIdToName of an earlier id of ", vrf);
    }
    static const Published::Database none;
    const Published::Database& old = fresh_ || !before_.db ? none : *before_.db;
    for (const auto& [vrf, id] : db.vrfId) {
        const U32* was = find(old.vrfId, vrf);
        hold(ids.contains(vrf) || vrf == defaultVrf || (was && *was == id), "nothing",
             "/navDb/vrfNameToId[", vrf, "]");
    }
    for (const auto& [id, vrf] : db.vrfName) {
        const VrfName* was = find(old.vrfName, id);
        const U32* current = find(ids, vrf);
        hold((current && *current == id) || vrf == defaultVrf || (was && *was == vrf), "nothing",
             "/navDb/vrfIdToName[", id, "]");
    }
}

// Sites that some group configures, those with a destination at least.
void Oracle::sites() const {
    std::set<IpGenAddr> all;
    auto compare = [](const auto& group, const std::set<IpGenAddr>& got, const String& place) {
        for (const auto& [site, destinations] : group.sites)
            hold(destinations.empty() || got.contains(site), "a member", place, "[", site, "]");
        for (const IpGenAddr& site : got)
            hold(group.sites.contains(site), "nothing", place, "[", site, "]");
    };
    Group everywhere;
    for (const auto& [name, group] : now_.groups) {
        compare(group, seen_.db->groups.at(name).sites,
                "/navDb/pathGroupInfo[" + name + "]/remoteIpList");
        for (const auto& [site, destinations] : group.sites)
            everywhere.sites[site].insert(destinations.begin(), destinations.end());
    }
    compare(everywhere, seen_.sites, "/navStatusDir/navRemoteIpList");
}

// ---- what became of the paths ----------------------------------------------------------------

const Connection* Oracle::connectionOf(const Inputs& in, const PathKey& key, const VrfName& vrf) {
    return find(in.connections, ConnectionKey{key.srcAddr, key.dstAddr, vrf});
}

void Oracle::statuses() const {
    for (const auto& [vrf, inVrf] : seen_.statuses)
        for (const auto& [key, status] : inVrf)
            if (!pathSeen(seen_, key, vrf))
                fail("nothing", "an entry", "/navStatusDir/navPathStatusDir/pathStatus[", vrf,
                     "]/pathStatusEntry[", key, "]");
    for (const auto& [key, path] : live_) {
        const Status* got = find(seen_.statuses, path.vrf, key);
        hold(got, "an entry", "pathStatusEntry[", key, "]");
        const Status* was = path.isNew ? nullptr : find(before_.statuses, path.vrf, key);
        oneOf(programmedFor(key, path, was), got->programmed, "pathStatusEntry[", key,
              "]/programmed");
        if (now_.results.contains(path.vrf)) {
            resolution(key, path, *got, was);
        } else if (!connectionOf(now_, key, path.vrf) &&
                   (fresh_ || !connectionOf(last_, key, path.vrf))) {
            // Nobody resolves the VRF: what stood there stays.
            std::vector<Nav::HwPathInfo> infos{{}};
            if (was) infos.push_back(was->info);
            oneOf(infos, got->info, "pathStatusEntry[", key, "]/pathInfo");
        }
    }
}

void Oracle::resolution(const PathKey& key, const Live& path, const Status& got,
                        const Status* was) const {
    oneOf(viasFor(key, path, was), got.info.via, "pathStatusEntry[", key, "]/pathInfo/via");
    oneOf(encapIdsFor(key, path, was), got.encapId, "pathStatusEntry[", key, "]/encapId");
    same(path.index, got.info.pathIndex, "pathStatusEntry[", key, "]/pathInfo/pathIndex");
    const bool secured = got.encapId != Nav::noEncapId || !path.ipsecProfile.empty();
    std::set types{secured ? PathType::securedPath : PathType::unsecuredPath};
    // An established connection secures a path that has no profile until its route changes.
    if (const Connection* connection = connectionOf(now_, key, path.vrf);
        connection && connection->state == Ipsec::Path::established)
        types.insert(PathType::securedPath);
    oneOf(types, got.info.pathType, "pathStatusEntry[", key, "]/pathInfo/pathType");
    // A route that does not fit takes the connection's id from such a path, and nothing else.
    if (path.ipsecProfile.empty() && secured != (got.info.pathType == PathType::securedPath))
        return;
    const bool open = got.info.pathType == PathType::unsecuredPath || got.encapId != Nav::noEncapId;
    same(open && got.info.via != Via{} ? PathState::resolved : PathState::unresolved,
         got.info.pathState, "pathStatusEntry[", key, "]/pathInfo/pathState");
}

std::vector<Via> Oracle::viasFor(const PathKey& key, const Live& path, const Status* was) const {
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

std::set<U32> Oracle::encapIdsFor(const PathKey& key, const Live& path, const Status* was) const {
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
    if (pathSeen(before_, key, path.vrf)->ipsecProfile != path.ipsecProfile)
        return {Nav::noEncapId};
    return {was->encapId};
}

// The entry with the path's index decides; where there is only one with another, it may.
std::set<bool> Oracle::programmedFor(const PathKey& key, const Live& path,
                                     const Status* was) const {
    std::set<bool> allowed;
    Nav::HwPathKey from{key.srcAddr, key.dstAddr, key.vrfId, 0};
    bool decided = false;
    for (auto at = now_.hardware.lower_bound(from);
         at != now_.hardware.end() && at->first.pathKey() == key; ++at) {
        if (at->first.pathIndex == path.index) {
            allowed = {at->second};
            decided = true;
            break;
        }
        allowed.insert(at->second);
    }
    if (!decided) allowed.insert(false);
    if (!now_.results.contains(path.vrf)) {
        allowed.insert(false);
        if (was) allowed.insert(was->programmed);
    }
    return allowed;
}

// The indices of the programmed paths, as far as somebody resolves their VRF.
void Oracle::siteGroups() const {
    std::map<SiteGroupKey, std::set<U32>> required, allowed;
    for (const auto& [key, path] : live_) {
        allowed[path.owner];
        if (!now_.results.contains(path.vrf)) {
            allowed[path.owner].insert(path.index);
        } else if (seen_.statuses.at(path.vrf).at(key).programmed) {
            allowed[path.owner].insert(path.index);
            required[path.owner].insert(path.index);
        }
    }
    for (const auto& [site, indices] : seen_.siteGroups) {
        const auto* may = find(allowed, site);
        hold(may, "nothing", "/siteGroupStatus/siteGroupStatusEntry[", site, "]");
        for (const U32 index : indices)
            hold(may->contains(index), "nothing", "/siteGroupStatus/siteGroupStatusEntry[", site,
                 "]/pathIndexEntry[", index, "]");
    }
    for (const auto& [site, indices] : required) {
        const auto* got = find(seen_.siteGroups, site);
        for (const U32 index : indices)
            hold(got && got->contains(index), "a member", "/siteGroupStatus/siteGroupStatusEntry[",
                 site, "]/pathIndexEntry[", index, "]");
    }
}

// Requested is what paths of the VRF use and nobody has resolved, and no more than they use.
void Oracle::nexthops() const {
    std::map<VrfName, std::set<IpGenAddr>> used;
    for (const auto& [key, path] : live_) {
        used[path.vrf].insert(key.dstAddr);
        const auto* got = find(seen_.nexthops, path.vrf);
        hold(got, "an entry", "/nexthopConfig/vrf[", path.vrf, "]");
        if (const auto* results = find(now_.results, path.vrf); results && settled_)
            hold(results->contains(key.dstAddr) || got->contains(key.dstAddr), "a member",
                 "/nexthopConfig/vrf[", path.vrf, "]/nexthop[", key.dstAddr, "]");
    }
    for (const auto& [name, group] : now_.groups)
        for (const IntfId& id : group.intfs)
            if (const Interface* intf = find(now_.interfaces, id); intf && !intf->addr.isZero())
                hold(seen_.nexthops.contains(intf->vrf), "an entry", "/nexthopConfig/vrf[",
                     intf->vrf, "]");
    for (const auto& [vrf, addrs] : seen_.nexthops) {
        const auto* allowed = &used[vrf];
        if (!now_.results.contains(vrf)) allowed = find(before_.nexthops, vrf);
        for (const IpGenAddr& addr : addrs)
            hold(allowed && allowed->contains(addr) &&
                     (now_.results.contains(vrf) || !hadResolver(vrf)),
                 "nothing", "/nexthopConfig/vrf[", vrf, "]/nexthop[", addr, "]");
    }
}

// One IPsec connection for each secured path, as far as somebody resolves its VRF.
void Oracle::requests() const {
    std::set<ConnectionKey> expected;
    for (const auto& [key, path] : live_) {
        if (path.ipsecProfile.empty() || !now_.results.contains(path.vrf)) continue;
        const ConnectionKey connection{key.srcAddr, key.dstAddr, path.vrf};
        const Request* got = find(seen_.requests, connection);
        hold(got, "an entry", "/ipsecPathConfigDir/ipsecPathConfig[", connection, "]");
        same(path.ipsecProfile, got->profile, "ipsecPathConfig[", connection, "]/profile");
        oneOf(path.intfs, got->intf, "ipsecPathConfig[", connection, "]/intfId");
        same("Path" + std::to_string(path.index), got->name, "ipsecPathConfig[", connection,
             "]/connectionName");
        expected.insert(connection);
    }
    for (const auto& [connection, request] : seen_.requests) {
        const Request* was = fresh_ ? nullptr : find(before_.requests, connection);
        const bool left = !now_.results.contains(connection.vrfName) && was && *was == request;
        hold(left || expected.contains(connection), "nothing",
             "/ipsecPathConfigDir/ipsecPathConfig[", connection, "]");
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

void Oracle::rules() const {
    std::map<Nav::VrfAppKey, Nav::VrfApp> applications;
    sameKeys(reconciled_, seen_.rules, "/navStatusDir/navRuleStatus");
    for (const auto& [vrf, policy] : reconciled_) {
        same(entriesOf(policy), seen_.rules.at(vrf), "/navStatusDir/navRuleStatus[", vrf,
             "]/navRuleEntry");
        auto named = [&, &vrf = vrf](U32 appId, const String& name) {
            const Nav::VrfAppKey key{*vrfIdOf(now_, vrf), appId};
            applications[key] = {key, vrf.str(), name};
        };
        for (const auto& [key, rule] : policy.rules) named(rule.appId, rule.appName);
        if (policy.hasDefault && !policy.defaultProfile.empty()) named(0, "default_app");
    }
    same(applications, seen_.db->applications, "/navDb/vrfApp");
}

void Oracle::classification() const {
    for (const auto& [vrf, policy] : seen_.appliedPolicies)
        hold(now_.bindings.contains(vrf) && !now_.bindings.at(vrf).empty(), "nothing",
             "policyForTarget[", vrf, "]");
    for (const auto& [vrf, policy] : now_.bindings) {
        const String* got = find(seen_.appliedPolicies, vrf);
        const String* was = find(before_.appliedPolicies, vrf);
        if (reconciled_.contains(vrf))
            hold(got && *got == policy, "its policy", "policyForTarget[", vrf, "]");
        else  // a deleted policy leaves it
            hold(!got || (was && *was == *got), "nothing", "policyForTarget[", vrf, "]");
    }
    for (const auto& [name, got] : seen_.featurePolicies)
        hold(now_.policies.contains(name), "nothing", "featurePolicy[", name, "]");
    for (const auto& [name, policy] : now_.policies) {
        const Policy* last = fresh_ ? nullptr : find(last_.policies, name);
        const FeaturePolicy* was = find(before_.featurePolicies, name);
        const FeaturePolicy* got = find(seen_.featurePolicies, name);
        const U32 version = was ? was->version : 0;
        if (last && last->version == policy.version) {
            hold(!was == !got, was ? "an entry" : "nothing", "featurePolicy[", name, "]");
            if (!got) continue;
            same(was->applications, got->applications, "featurePolicy[", name,
                 "]/appProfilePriority");
            same(version, got->version, "featurePolicy[", name, "]/version");
            continue;
        }
        std::map<U32, String> applications;
        if (last || fresh_)
            for (const auto& [key, rule] : policy.rules) applications[key] = rule.appName;
        hold(got || applications.empty(), "an entry", "featurePolicy[", name, "]");
        if (!got) continue;
        same(applications, got->applications, "featurePolicy[", name, "]/appProfilePriority");
        const std::set<U32> versions = fresh_ ? std::set<U32>{1, version, version + 1}
                                              : std::set<U32>{version + !applications.empty()};
        oneOf(versions, got->version, "featurePolicy[", name, "]/version");
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
    std::set<U32> ids;
    std::set<LbProfileKey> keysOfProfiles;
    for (const auto& [name, keys] : seen_.db->keysOfProfile)
        keysOfProfiles.insert(keys.begin(), keys.end());
    for (const auto& [key, want] : expected)
        if (!seen_.balances.contains(key))
            fail("an entry", "nothing", "lbProfileStatus[", key, "]");
    for (const auto& [key, got] : seen_.balances) {
        hold(got.id >= 1 && got.id <= Nav::NavConstants::maxLbIndex && ids.insert(got.id).second,
             "an id of its own", "lbProfileStatus[", key, "]/lbIndex");
        hold(keysOfProfiles.erase(key), "a member", "lbNameToLbKeySet of ", key);
        const Expected* want = find(expected, key);
        same(want ? want->members : decltype(got.members){}, got.members, "lbProfileStatus[", key,
             "]/pathEntry");
        if (want)
            same(want->constraints.begin()->second, got.constraints, "lbProfileStatus[", key, "]");
        else  // a vanished site keeps its keys until the rule or the profile is removed
            hold(governing(key.vrfId, key.appId, "") &&
                     (claimants_.contains(key.vtepIp) ||
                      (!fresh_ && before_.balances.contains(key))),
                 "nothing", "lbProfileStatus[", key, "]");
    }
    if (!keysOfProfiles.empty())
        fail("nothing", text(*keysOfProfiles.begin()), "/navDb/lbNameToLbKeySet");
    if (!fresh_) balancesOver(before_);
    vanishedSites(before_);
}

// A vanished site keeps its keys, unless ids ran out: then those that vanished first give up theirs
// first, one key for each id that is needed.
void Oracle::vanishedSites(const Published& before) {
    if (fresh_) vanished_.clear();
    ++checks_;
    std::set<IpGenAddr> present;
    for (const auto& [site, indices] : seen_.siteGroups) present.insert(site.routerIp);
    std::erase_if(vanished_, [&](const auto& site) { return present.contains(site.first); });
    if (fresh_) return;
    for (const auto& [site, indices] : before.siteGroups)
        if (!present.contains(site.routerIp)) vanished_.emplace(site.routerIp, checks_);

    U64 firstKept = std::numeric_limits<U64>::max();
    for (const auto& [key, balance] : seen_.balances)
        if (const U64* since = find(vanished_, key.vtepIp)) firstKept = std::min(firstKept, *since);
    for (const auto& [key, was] : before.balances) {
        const U64* since = find(vanished_, key.vtepIp);
        if (!since || seen_.balances.contains(key)) continue;
        if (last_.profiles != now_.profiles || !keepsRules(before, key.vrfId)) continue;
        hold(seen_.balances.size() == Nav::NavConstants::maxLbIndex && *since <= firstKept,
             "an entry", "lbProfileStatus[", key, "]");
    }
}

// Whether the VRFs with an id have the bindings and rules that they had.
bool Oracle::keepsRules(const Published& before, U32 vrfId) const {
    const auto rulesIn = [&](const Inputs& in, const Published& published) {
        std::map<VrfName, std::pair<String, std::set<NavRuleEntry>>> rules;
        for (const auto& [vrf, entries] : published.rules)
            if (const auto bound = boundTo(in, vrf); bound && bound->vrfId == vrfId)
                rules[vrf] = {bound->policy, entries};
        return rules;
    };
    return rulesIn(last_, before) == rulesIn(now_, seen_);
}

// What lives on keeps its id, and its generation tells every change of the members.
void Oracle::balancesOver(const Published& before) const {
    auto namesOf = [](const std::map<String, Profile>& profiles) {
        std::set<String> names;
        for (const auto& [name, profile] : profiles) names.insert(name);
        return names;
    };
    Inputs onlyHardware = last_;
    onlyHardware.hardware = now_.hardware;
    const bool exact = onlyHardware == now_;
    const auto indicesNow = indicesIn(seen_), indicesBefore = indicesIn(before);
    std::vector<std::pair<SiteGroupKey, U32>> changed;
    std::set_symmetric_difference(indicesNow.begin(), indicesNow.end(), indicesBefore.begin(),
                                  indicesBefore.end(), std::back_inserter(changed));
    const bool sameProfiles = namesOf(last_.profiles) == namesOf(now_.profiles);
    for (const auto& [key, got] : seen_.balances) {
        const Balance* was = find(before.balances, key);
        U32 steps = 0;  // one for each change, however many rules share the key
        for (const auto& [site, index] : changed)
            steps += site.routerIp == key.vtepIp && governing(key.vrfId, key.appId, site.name);
        if (exact)
            same((was ? was->generation : 0) + steps, got.generation, "lbProfileStatus[", key,
                 "]/genId");
        if (!was) continue;
        if (sameProfiles && keepsRules(before, key.vrfId))
            same(was->id, got.id, "lbProfileStatus[", key, "]/lbIndex");
        if (was->id != got.id) continue;
        hold(got.generation > was->generation ||
                 (got.generation == was->generation && got.members == was->members),
             "a later generation", "lbProfileStatus[", key, "]/genId");
    }
}

}  // namespace Oracle

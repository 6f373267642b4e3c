#include "agent/linux/kernel/ObjectWriter.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <optional>
#include <unordered_map>

#include "agent/linux/kernel/LinuxTrace.h"
#include "agent/linux/kernel/ObjectDump.h"

namespace Agent::Linux {

namespace {

template <class T>
const T* find(const Objects& objects, const ObjectKey& key) {
    const auto found = objects.find(key);
    return found == objects.end() ? nullptr : std::get_if<T>(&found->second);
}

// Packets of a tunnel come by any path, and the router forwards them.
void allowForwarding(const Netz::IntfId& name) {
    const std::string link(name.str());
    for (const auto& [place, value] : {std::pair("ipv4/conf/" + link + "/rp_filter", "0"),
                                       std::pair("ipv4/conf/" + link + "/forwarding", "1"),
                                       std::pair("ipv6/conf/" + link + "/forwarding", "1")})
        if (!(std::ofstream("/proc/sys/net/" + place) << value << std::flush))
            DUOLOG(linuxTrace, 3, "net/", place, " cannot be set to ", value);
}

// Finds out how to move the traffic of next hops that are to be removed.
class Diversions {
  public:
    Diversions(const Objects& present, const Objects& wanted, const ObjectKeys& keys);

    // Next hops to be replaced, each with its own id, but otherwise equal to another one.
    std::vector<Nexthop> nexthops;
    // Groups of the others, to be replaced by the wanted ones; by id.
    std::map<uint32_t, const NexthopGroup*> groups;

  private:
    struct State {
        bool stays = false;    // in the kernel as wanted
        bool removed = false;  // in the kernel, but not wanted
    };
    struct Removed {
        std::vector<uint32_t> common;             // the next hops that all its groups are to have
        std::vector<const NexthopGroup*> groups;  // as wanted
    };

    State state(uint32_t id);
    bool stays(const NexthopGroup& group);
    void list(const NexthopGroup& before, const NexthopGroup& after);
    void divert(uint32_t id, const Removed& removed);

    const Objects &present_, &wanted_;
    std::unordered_map<uint32_t, State> states_;
    std::unordered_map<uint32_t, Removed> removed_;
    std::vector<uint32_t> order_;  // of `removed_`: those of one group follow each other
};

Diversions::Diversions(const Objects& present, const Objects& wanted, const ObjectKeys& keys)
    : present_(present), wanted_(wanted) {
    for (const ObjectKey& key : keys) {
        const auto* before = find<NexthopGroup>(present, key);
        const auto* after = find<NexthopGroup>(wanted, key);
        if (before && after) list(*before, *after);
    }
    for (const uint32_t id : order_) divert(id, removed_[id]);
}

Diversions::State Diversions::state(uint32_t id) {
    const auto [at, isNew] = states_.try_emplace(id);
    if (!isNew) return at->second;
    const auto* present = find<Nexthop>(present_, Nexthop::Key{id});
    const auto* wanted = find<Nexthop>(wanted_, Nexthop::Key{id});
    return at->second = {present && wanted && *present == *wanted, present && !wanted};
}

bool Diversions::stays(const NexthopGroup& group) {
    return std::ranges::all_of(group.members,
                               [this](const auto& member) { return state(member.id).stays; });
}

void Diversions::list(const NexthopGroup& before, const NexthopGroup& after) {
    std::vector<uint32_t> next;
    for (const auto& member : after.members)
        if (state(member.id).stays) next.push_back(member.id);
    for (const auto& member : before.members) {
        if (!state(member.id).removed) continue;
        auto& [common, groups] = removed_[member.id];
        if (groups.empty())
            common = next, order_.push_back(member.id);
        else
            std::erase_if(common, [&](uint32_t id) { return !std::ranges::count(next, id); });
        groups.push_back(&after);
    }
}

void Diversions::divert(uint32_t id, const Removed& removed) {
    constexpr size_t few = 2;  // groups, which are replaced as quickly
    if (removed.common.empty() || removed.groups.size() <= few) {
        for (const NexthopGroup* group : removed.groups)
            if (stays(*group)) groups.emplace(group->id, group);
        return;
    }
    const auto to = [&](uint32_t other) {
        Nexthop nexthop = *find<Nexthop>(present_, Nexthop::Key{other});
        nexthop.id = id;
        return nexthop;
    };
    const Nexthop& now = *find<Nexthop>(present_, Nexthop::Key{id});
    const auto isDiverted = [&](uint32_t other) { return to(other) == now; };
    if (std::ranges::none_of(removed.common, isDiverted))
        nexthops.push_back(to(removed.common[nexthops.size() % removed.common.size()]));
}

}  // namespace

// The kernel receives a tunnel's packets by sockets for all addresses. It refuses them when the
// device is set up, which is too late: a device with another port has been removed by then.
bool portIsFree(uint16_t port) {
    for (const int family : {AF_INET, AF_INET6}) {
        const int fd = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd < 0) continue;  // a kernel without IPv6
        const int on = 1;
        if (family == AF_INET6) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
        sockaddr_in6 any{};  // its port lies where that of sockaddr_in does
        any.sin6_family = static_cast<sa_family_t>(family);
        any.sin6_port = htons(port);
        const bool taken = bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0 &&
                           errno == EADDRINUSE;
        close(fd);
        if (taken) return false;
    }
    return true;
}

bool ObjectWriter::read() {
    auto objects = readObjects(requests_);
    if (objects) present_ = std::move(*objects);
    return objects.has_value();
}

size_t ObjectWriter::apply(const Objects& wanted, const ObjectKeys& keys, Scope scope) {
    size_t changes = 0;
    for (const ObjectKey& key : keys) {
        const auto object = wanted.find(key);
        const auto now = present_.find(key);
        if (object == wanted.end()) {
            refused_.erase(key);
            continue;
        }
        const bool exists = now != present_.end();
        if (exists && (now->second == object->second || scope == Scope::additions)) continue;
        if (const auto* tunnel = std::get_if<Tunnel>(&object->second)) {
            makeTunnel(*tunnel, find<Tunnel>(present_, key));
            changes += commit();
        } else {
            make(object->second, exists);
        }
    }
    for (auto key = keys.rbegin(); scope == Scope::all && key != keys.rend(); ++key)
        if (!wanted.contains(*key) && present_.contains(*key)) remove(*key);
    return changes + commit();
}

size_t ObjectWriter::divert(const Objects& wanted, const ObjectKeys& keys) {
    const Diversions diversions(present_, wanted, keys);
    for (const Nexthop& nexthop : diversions.nexthops) make(nexthop, true);
    for (const auto& [id, group] : diversions.groups) make(*group, true);
    return commit();
}

void ObjectWriter::make(const Object& object, bool exists) {
    struct {
        Changes& changes;
        const bool exists;
        void operator()(const Tunnel&) const {}
        void operator()(const Nexthop& nexthop) const { changes.nexthopIs(nexthop, !exists); }
        void operator()(const NexthopGroup& group) const { changes.nexthopGroupIs(group, !exists); }
        void operator()(const Route& route) const { changes.routeIs(route, !exists); }
        void operator()(const Rule& rule) const { changes.ruleIs(rule); }
    } const visitor{changes_, exists};
    std::visit(visitor, object);
    batch_.emplace_back(keyOf(object), object);
}

std::set<uint16_t> ObjectWriter::ports() const {
    std::set<uint16_t> ports;
    for (const auto& [key, object] : present_)
        if (const auto* tunnel = std::get_if<Tunnel>(&object)) ports.insert(tunnel->udpPort);
    return ports;
}

// A device's port is fixed when it is made; with a new one, it is made anew, and what uses it too.
void ObjectWriter::makeTunnel(const Tunnel& wanted, const Tunnel* present) {
    const std::string name(wanted.name.str());
    const auto add = [&] { batch_.emplace_back(wanted.key(), wanted); };
    if (!ports().contains(wanted.udpPort) && !portIsFree(wanted.udpPort)) {
        const std::string reason = "UDP port " + std::to_string(wanted.udpPort) + " is in use";
        DUOLOG(linuxTrace, 3, "The kernel refuses ", textOf(Object(wanted)), ": ", reason);
        refused_.insert_or_assign(wanted.key(), reason);
        return;
    }
    if (present && present->udpPort != wanted.udpPort) {
        remove(wanted.key());
        commit();
        present = nullptr;
    }
    if (!present) {
        changes_.tunnelIs(wanted);
        batch_.emplace_back(wanted.key(), Tunnel{.name = wanted.name, .udpPort = wanted.udpPort});
        commit();
        if (!present_.contains(wanted.key())) return;
        allowForwarding(wanted.name);
    }
    const uint32_t index = if_nametoindex(name.c_str());
    if (present && present->vni != wanted.vni && present->vni != 0)
        changes_.vniDel(index, present->vni), add();
    if (present && present->address != wanted.address && !present->address.addr.isZero())
        changes_.addressDel(index, present->address), add();
    changes_.vniIs(index, wanted.vni), add();
    changes_.linkIs(index, wanted.mtu, wanted.master), add();
    if (!wanted.address.addr.isZero()) changes_.addressIs(index, wanted.address), add();
}

void ObjectWriter::remove(const ObjectKey& key) {
    struct {
        Changes& changes;
        void operator()(const Tunnel::Key& tunnel) const {
            changes.linkDel(if_nametoindex(std::string(tunnel.name.str()).c_str()));
        }
        void operator()(const Nexthop::Key& nexthop) const { changes.nexthopDel(nexthop.id); }
        void operator()(const NexthopGroup::Key& group) const { changes.nexthopDel(group.id); }
        void operator()(const Route::Key& route) const { changes.routeDel(route); }
        void operator()(const Rule& rule) const { changes.ruleDel(rule); }
    } const visitor{changes_};
    std::visit(visitor, key);
    batch_.emplace_back(key, std::nullopt);
}

// A change that is refused leaves the object as it was. An object may take several changes.
size_t ObjectWriter::commit() {
    const auto batch = std::exchange(batch_, {});
    Refused refused;
    for (const auto& refusal : changes_.commit(requests_)) {
        const auto& [key, object] = batch[refusal.position];
        refused.emplace(key, refusal.reason);
        if (object)
            DUOLOG(linuxTrace, 3, "The kernel refuses ", textOf(*object), ": ", refusal.reason);
    }
    for (const auto& [key, object] : batch) {
        if (refused.contains(key)) continue;
        refused_.erase(key);
        if (object)
            present_.insert_or_assign(key, *object);
        else
            present_.erase(key);
    }
    for (auto& [key, reason] : refused) refused_.insert_or_assign(key, std::move(reason));
    return batch.size();
}

}  // namespace Agent::Linux

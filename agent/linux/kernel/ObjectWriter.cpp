#include "agent/linux/kernel/ObjectWriter.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>

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

}  // namespace

bool ObjectWriter::read() {
    auto objects = readObjects(requests_);
    if (objects) present_ = std::move(*objects);
    return objects.has_value();
}

size_t ObjectWriter::apply(const Objects& wanted, const std::set<ObjectKey>& keys, Scope scope) {
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

// Whether some tunnel device of the agent has the port; those of all VRFs share it.
bool ObjectWriter::hasPort(uint16_t port) const {
    return std::ranges::any_of(present_, [&](const auto& item) {
        const auto* tunnel = std::get_if<Tunnel>(&item.second);
        return tunnel && tunnel->udpPort == port;
    });
}

// A device's port is fixed when it is made; with a new one, it is made anew, and what uses it too.
void ObjectWriter::makeTunnel(const Tunnel& wanted, const Tunnel* present) {
    const std::string name(wanted.name.str());
    const auto add = [&] { batch_.emplace_back(wanted.key(), wanted); };
    if (!hasPort(wanted.udpPort) && !portIsFree(wanted.udpPort)) {
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

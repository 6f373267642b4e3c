#include "agent/linux/kernel/LinkState.h"

#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <set>

namespace Agent::Linux {

namespace {

// <net/if.h> and <linux/if.h> exclude each other; this flag is only in the latter.
constexpr uint32_t lowerUp = 1U << 16;  // IFF_LOWER_UP
constexpr uint32_t upFlags = IFF_UP | IFF_RUNNING | lowerUp;
// IFA_F_SECONDARY is IFA_F_TEMPORARY for IPv6.
constexpr uint32_t unusableFlags =
    IFA_F_SECONDARY | IFA_F_TENTATIVE | IFA_F_DADFAILED | IFA_F_DEPRECATED;

std::optional<uint32_t> vrfTableOf(Bytes linkInfo) {
    bool isVrf = false;
    std::optional<uint32_t> table;
    for (const NetlinkAttribute& info : Attributes(linkInfo)) {
        if (info.type == IFLA_INFO_KIND) isVrf = info.text() == "vrf";
        if (info.type != IFLA_INFO_DATA) continue;
        for (const NetlinkAttribute& data : Attributes(info.data))
            if (data.type == IFLA_VRF_TABLE) table = data.u32();
    }
    return isVrf ? table : std::nullopt;
}

}  // namespace

const Interface* InterfaceView::at(uint32_t index) const {
    const auto found = std::ranges::lower_bound(interfaces, index, {}, &Interface::index);
    return found != interfaces.end() && found->index == index ? &*found : nullptr;
}

const Interface* InterfaceView::named(const Netz::IntfId& name) const {
    const auto found = byName.find(name);
    return found != byName.end() ? &interfaces[found->second] : nullptr;
}

void LinkState::apply(const Message& message) {
    if (message.type == RTM_NEWLINK || message.type == RTM_DELLINK) applyLink(message);
    if (message.type == RTM_NEWADDR || message.type == RTM_DELADDR) applyAddress(message);
}

void LinkState::applyLink(const Message& message) {
    const auto header = message.header<ifinfomsg>();
    // Messages of another family concern a port of a bridge, not the link: RTM_DELLINK then means
    // that the port left the bridge.
    if (!header || header->ifi_family != AF_UNSPEC || header->ifi_index <= 0) return;
    const auto index = static_cast<uint32_t>(header->ifi_index);
    if (message.type == RTM_DELLINK) {
        links_.erase(index);
        return;
    }
    // Every message describes the whole link: a missing attribute has been removed.
    Netz::IntfId name;
    uint32_t mtu = 0, group = 0, master = 0;
    std::optional<uint32_t> vrfTable;
    for (const NetlinkAttribute& attribute : attributesAfter<ifinfomsg>(message)) {
        if (attribute.type == IFLA_IFNAME)
            name = Netz::IntfId::parse(attribute.text()).value_or(Netz::IntfId());
        if (attribute.type == IFLA_MTU) mtu = attribute.u32().value_or(0);
        if (attribute.type == IFLA_GROUP) group = attribute.u32().value_or(0);
        if (attribute.type == IFLA_MASTER) master = attribute.u32().value_or(0);
        if (attribute.type == IFLA_LINKINFO) vrfTable = vrfTableOf(attribute.data);
    }
    if (name.empty()) return;
    Link& link = links_[index];
    link.name = name;
    link.flags = header->ifi_flags;
    link.mtu = mtu;
    link.group = group;
    link.master = master;
    link.vrfTable = vrfTable;
}

void LinkState::applyAddress(const Message& message) {
    const auto header = message.header<ifaddrmsg>();
    if (!header) return;
    const unsigned family = header->ifa_family;
    uint32_t flags = header->ifa_flags;
    std::optional<Netz::IpGenAddr> local, peer;
    for (const NetlinkAttribute& attribute : attributesAfter<ifaddrmsg>(message)) {
        if (attribute.type == IFA_LOCAL) local = readAddr(family, attribute.data);
        if (attribute.type == IFA_ADDRESS) peer = readAddr(family, attribute.data);
        if (attribute.type == IFA_FLAGS) flags = attribute.u32().value_or(flags);
    }
    if (!local) local = peer;  // IPv6 names a local address only beside a peer
    if (!local || header->ifa_prefixlen > local->bits()) return;
    Address address{{*local, header->ifa_prefixlen}, {}, flags, header->ifa_scope};
    if (local->isV4()) address.peer = peer.value_or(*local);

    auto& addresses = links_[header->ifa_index].addresses;
    auto at = std::ranges::find_if(addresses, [&](const Address& known) {
        return known.local == address.local && known.peer == address.peer;
    });
    const bool known = at != addresses.end();
    const bool promoted =
        known && (at->flags & IFA_F_SECONDARY) > (address.flags & IFA_F_SECONDARY);
    if (known && message.type == RTM_NEWADDR && !promoted) {
        *at = address;
        return;
    }
    if (known) addresses.erase(at);
    if (message.type == RTM_DELADDR) return;
    // The kernel lists the IPv4 addresses of a link oldest first, those of IPv6 newest first.
    const bool newestFirst = local->isV6() && (message.flags & NLM_F_MULTI) != 0;
    addresses.insert(newestFirst ? addresses.begin() : addresses.end(), address);
}

// By the index of their devices. Indexes grow, so of two devices with one table the lower index is
// the older one.
std::map<uint32_t, Vrf> LinkState::vrfs() const {
    std::map<uint32_t, Vrf> vrfs;
    std::set<uint32_t> tables;
    for (const auto& [index, link] : links_)
        if (link.vrfTable && !link.name.empty()) {
            const uint32_t id = tables.insert(*link.vrfTable).second ? *link.vrfTable : 0;
            vrfs.emplace(index, Vrf{link.name.stringValue(), id, index});
        }
    return vrfs;
}

InterfaceView LinkState::view() const {
    const Vrf defaultVrf{"default", 0, 0};
    const std::map<uint32_t, Vrf> vrfs = this->vrfs();
    InterfaceView view;
    view.vrfs.push_back(defaultVrf);
    for (const auto& [index, vrf] : vrfs) view.vrfs.push_back(vrf);
    for (const auto& [index, link] : links_) {
        if (link.name.empty()) continue;
        Interface interface;
        interface.index = index;
        interface.name = link.name;
        interface.mtu = link.mtu;
        interface.group = link.group;
        interface.up = (link.flags & upFlags) == upFlags;
        const auto vrf = vrfs.find(link.vrfTable ? index : link.master);
        interface.vrf = vrf != vrfs.end() ? vrf->second : defaultVrf;
        for (const Address& address : link.addresses) {
            const Netz::IpGenAddr& local = address.local.addr;
            auto& oldest = local.isV4() ? interface.address4 : interface.address6;
            if (oldest.addr.isZero() && address.scope == RT_SCOPE_UNIVERSE &&
                (address.flags & unusableFlags) == 0 && !(local.isV4() && local.data()[0] == 127))
                oldest = address.local;
        }
        if (interface.up)
            interface.primary4 = interface.address4, interface.primary6 = interface.address6;
        view.byName.emplace(interface.name, view.interfaces.size());
        view.interfaces.push_back(std::move(interface));
    }
    return view;
}

bool LinkState::needsNoNeighbour(uint32_t index) const {
    const auto link = links_.find(index);
    return link != links_.end() && (link->second.flags & IFF_NOARP) != 0;
}

}  // namespace Agent::Linux

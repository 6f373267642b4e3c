#include "agent/linux/kernel/NeighbourState.h"

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>

namespace Agent::Linux {

namespace {

constexpr uint16_t resolvedStates =
    NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT | NUD_NOARP;

constexpr uint16_t operatorStates = NUD_PERMANENT | NUD_NOARP;

}  // namespace

bool NeighbourState::apply(const Message& message) {
    if (message.type != RTM_NEWNEIGH && message.type != RTM_DELNEIGH) return false;
    const auto header = message.header<ndmsg>();
    if (!header || header->ndm_ifindex <= 0 || (header->ndm_flags & NTF_PROXY) != 0) return false;
    // A bridge's learned stations are of another family and yield no address.
    std::optional<Netz::IpGenAddr> addr;
    for (const NetlinkAttribute& attribute : attributesAfter<ndmsg>(message))
        if (attribute.type == NDA_DST) addr = readAddr(header->ndm_family, attribute.data);
    if (!addr) return false;

    const Neighbour neighbour{static_cast<uint32_t>(header->ndm_ifindex), *addr};
    const bool before = resolved(neighbour);
    if (message.type == RTM_DELNEIGH)
        states_.erase(neighbour);
    else
        states_[neighbour] = header->ndm_state;
    return resolved(neighbour) != before;
}

bool NeighbourState::resolved(const Neighbour& neighbour) const {
    return (state(neighbour) & resolvedStates) != 0;
}

bool NeighbourState::dynamic(const Neighbour& neighbour) const {
    return (state(neighbour) & operatorStates) == 0;
}

uint16_t NeighbourState::state(const Neighbour& neighbour) const {
    const auto at = states_.find(neighbour);
    return at == states_.end() ? uint16_t{NUD_NONE} : at->second;
}

size_t solicit(RequestSocket& requests, std::span<const Neighbour> neighbours,
               std::string& reason) {
    size_t refused = 0;
    const size_t lost = requests.exchange(
        neighbours.size(),
        [&](MessageWriter& writer, uint32_t sequence, size_t i) {
            ndmsg header{};
            header.ndm_family = neighbours[i].addr.isV4() ? AF_INET : AF_INET6;
            header.ndm_ifindex = static_cast<int>(neighbours[i].ifIndex);
            header.ndm_flags = NTF_USE;
            writer.begin(RTM_NEWNEIGH, NLM_F_CREATE | NLM_F_ACK, sequence, header);
            writer.attribute(NDA_DST, neighbours[i].addr);
        },
        [&](size_t, const Message& message) {
            if (errorOf(message) == 0) return;
            ++refused;
            reason = std::strerror(errorOf(message));
        });
    if (lost != 0) reason = "no reply";
    return refused + lost;
}

}  // namespace Agent::Linux

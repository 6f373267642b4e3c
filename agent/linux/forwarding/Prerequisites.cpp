#include "agent/linux/forwarding/Prerequisites.h"

#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "agent/linux/forwarding/Nftables.h"
#include "agent/linux/kernel/NetlinkSocket.h"
#include "platform/netz/Error.h"

namespace Agent::Linux {

namespace {

// The error with which the kernel refuses to create a VXLAN device of which nothing is given. It
// examines the privilege first, then the kind of device, for which it loads the module, then what
// is given.
int refusalOfVxlan() {
    RequestSocket requests;
    int error = ENOBUFS;
    requests.exchange(
        1,
        [](MessageWriter& writer, uint32_t sequence, size_t) {
            writer.begin(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK, sequence, ifinfomsg{});
            writer.nested(IFLA_LINKINFO,
                          [&] { writer.attribute(IFLA_INFO_KIND, std::string_view("vxlan")); });
        },
        [&](size_t, const Message& message) { error = errorOf(message); });
    return error;
}

}  // namespace

void requireForwarding() {
    switch (const int error = refusalOfVxlan()) {
        case EPERM:
            throw Vel::Error("forwarding requires CAP_NET_ADMIN in the agent's network namespace");
        case EOPNOTSUPP:
            throw Vel::Error("forwarding requires VXLAN devices (kernel module vxlan)");
        case EINVAL:
            break;
        default:
            throw Vel::Error("forwarding requires VXLAN devices: " +
                             std::string(std::strerror(error)));
    }
    // Without the protocol, libnftables would end the process.
    try {
        NetlinkSocket(1 << 16, NETLINK_NETFILTER);
    } catch (const Vel::Error& error) {
        throw Vel::Error(std::string("forwarding requires nftables: ") + error.what());
    }
    const std::string reason = Nftables().check("add table inet nav");
    if (!reason.empty()) throw Vel::Error("forwarding requires nftables: " + reason);
}

}  // namespace Agent::Linux

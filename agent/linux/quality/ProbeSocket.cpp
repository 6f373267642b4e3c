#include "agent/linux/quality/ProbeSocket.h"

#include <linux/errqueue.h>
#include <linux/net_tstamp.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "platform/netz/Error.h"

namespace Agent::Linux {

namespace {

using Netz::IpGenAddr;
using std::chrono::nanoseconds;

constexpr int receiveBuffer = 1 << 20;
constexpr int maxTtl = 255;  // as of all STAMP packets (RFC 8762, 4.2)

union SocketAddress {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

socklen_t toSocket(const IpGenAddr& addr, uint16_t port, SocketAddress& to) {
    to = {};
    if (addr.isV6()) {
        to.v6.sin6_family = AF_INET6;
        to.v6.sin6_port = htons(port);
        std::memcpy(&to.v6.sin6_addr, addr.data(), addr.size());
        return sizeof to.v6;
    }
    to.v4.sin_family = AF_INET;
    to.v4.sin_port = htons(port);
    std::memcpy(&to.v4.sin_addr, addr.data(), addr.size());
    return sizeof to.v4;
}

void fromSocket(const SocketAddress& from, ProbeDatagram& to) {
    if (from.any.sa_family == AF_INET6) {
        std::array<uint8_t, 16> octets;
        std::memcpy(octets.data(), &from.v6.sin6_addr, octets.size());
        to.peer = IpGenAddr::fromV6(octets);
        to.port = ntohs(from.v6.sin6_port);
    } else {
        to.peer = IpGenAddr::fromV4(ntohl(from.v4.sin_addr.s_addr));
        to.port = ntohs(from.v4.sin_port);
    }
}

template <class T>
T valueOf(const cmsghdr& control) {
    T value;
    std::memcpy(&value, CMSG_DATA(&control), sizeof value);
    return value;
}

// What the kernel tells about a datagram beside its data.
struct Control {
    std::optional<nanoseconds> sinceEpoch;
    uint8_t trafficClass = 0, ttl = 0;
    std::optional<sock_extended_err> error;

    explicit Control(msghdr& message) {
        for (cmsghdr* each = CMSG_FIRSTHDR(&message); each; each = CMSG_NXTHDR(&message, each))
            take(*each);
    }

  private:
    void take(const cmsghdr& control) {
        const auto is = [&](int level, int type) {
            return control.cmsg_level == level && control.cmsg_type == type;
        };
        if (is(SOL_SOCKET, SO_TIMESTAMPING)) {
            const timespec stamp = valueOf<scm_timestamping>(control).ts[0];
            if (stamp.tv_sec != 0 || stamp.tv_nsec != 0)
                sinceEpoch = std::chrono::seconds(stamp.tv_sec) + nanoseconds(stamp.tv_nsec);
        } else if (is(SOL_IP, IP_TOS)) {
            trafficClass = valueOf<uint8_t>(control);
        } else if (is(SOL_IPV6, IPV6_TCLASS)) {
            trafficClass = static_cast<uint8_t>(valueOf<int>(control));
        } else if (is(SOL_IP, IP_TTL) || is(SOL_IPV6, IPV6_HOPLIMIT)) {
            ttl = static_cast<uint8_t>(valueOf<int>(control));
        } else if (is(SOL_IP, IP_RECVERR) || is(SOL_IPV6, IPV6_RECVERR)) {
            error = valueOf<sock_extended_err>(control);
        }
    }
};

bool isPortUnreachable(const sock_extended_err& error) {
    return (error.ee_origin == SO_EE_ORIGIN_ICMP && error.ee_type == ICMP_DEST_UNREACH &&
            error.ee_code == ICMP_PORT_UNREACH) ||
           (error.ee_origin == SO_EE_ORIGIN_ICMP6 && error.ee_type == ICMP6_DST_UNREACH &&
            error.ee_code == ICMP6_DST_UNREACH_NOPORT);
}

}  // namespace

// The buffers of one system call, shared by all sockets of a thread.
struct ProbeSocket::Slots {
    struct Slot {
        SocketAddress address;
        iovec place;
        alignas(cmsghdr) std::array<std::byte, 256> control;
        std::array<std::byte, maxSize> data;
    };
    std::array<mmsghdr, batch> headers{};
    std::array<Slot, batch> slots;

    void prepareToReceive() {
        for (unsigned i = 0; i < batch; ++i) {
            Slot& slot = slots[i];
            slot.place = {slot.data.data(), slot.data.size()};
            headers[i].msg_hdr = {.msg_name = &slot.address,
                                  .msg_namelen = sizeof slot.address,
                                  .msg_iov = &slot.place,
                                  .msg_iovlen = 1,
                                  .msg_control = slot.control.data(),
                                  .msg_controllen = slot.control.size(),
                                  .msg_flags = 0};
        }
    }
    void prepareToSend(unsigned i, const ProbeDatagram& datagram) {
        Slot& slot = slots[i];
        const bool v6 = datagram.peer.isV6();
        msghdr& message = headers[i].msg_hdr;
        slot.place = {const_cast<std::byte*>(datagram.data.data()), datagram.data.size()};
        message = {.msg_name = &slot.address,
                   .msg_namelen = toSocket(datagram.peer, datagram.port, slot.address),
                   .msg_iov = &slot.place,
                   .msg_iovlen = 1,
                   .msg_control = slot.control.data(),
                   .msg_controllen = CMSG_SPACE(sizeof(int)),
                   .msg_flags = 0};
        cmsghdr* control = CMSG_FIRSTHDR(&message);
        control->cmsg_level = v6 ? SOL_IPV6 : SOL_IP;
        control->cmsg_type = v6 ? IPV6_TCLASS : IP_TOS;
        control->cmsg_len = CMSG_LEN(sizeof(int));
        const int trafficClass = datagram.trafficClass;
        std::memcpy(CMSG_DATA(control), &trafficClass, sizeof trafficClass);
    }
    // Empty if it was too long.
    std::optional<ProbeDatagram> datagram(unsigned i, const Control& control) const {
        if (headers[i].msg_hdr.msg_flags & MSG_TRUNC) return {};
        ProbeDatagram datagram{.trafficClass = control.trafficClass,
                               .ttl = control.ttl,
                               .sinceEpoch = control.sinceEpoch,
                               .data = std::span(slots[i].data).first(headers[i].msg_len)};
        fromSocket(slots[i].address, datagram);
        return datagram;
    }
};

ProbeSocket::Slots& ProbeSocket::slots() {
    static thread_local const auto slots = std::make_unique<Slots>();
    return *slots;
}

ProbeSocket::ProbeSocket(Role role, const Place& place, uint16_t port)
    : fd_(socket(place.addr.isV6() ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK,
                 0)),
      role_(role) {
    const auto refuse = [&](const char* what) {
        const std::string reason = std::strerror(errno);
        if (fd_ >= 0) close(fd_);
        throw Vel::Error("UDP port " + std::to_string(port) + " of " + place.addr.stringValue() +
                         ": " + what + ": " + reason);
    };
    if (fd_ < 0) refuse("socket");
    const auto set = [&](int level, int option, int value) {
        if (setsockopt(fd_, level, option, &value, sizeof value) != 0) refuse("setsockopt");
    };
    const bool v6 = place.addr.isV6();
    set(SOL_SOCKET, SO_BINDTOIFINDEX, static_cast<int>(place.ifIndex));
    // Beyond net.core.rmem_max with CAP_NET_ADMIN only.
    if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer) != 0)
        set(SOL_SOCKET, SO_RCVBUF, receiveBuffer);
    set(v6 ? SOL_IPV6 : SOL_IP, v6 ? IPV6_UNICAST_HOPS : IP_TTL, maxTtl);
    if (role == Role::reflector) {
        set(v6 ? SOL_IPV6 : SOL_IP, v6 ? IPV6_RECVHOPLIMIT : IP_RECVTTL, 1);
        set(v6 ? SOL_IPV6 : SOL_IP, v6 ? IPV6_RECVTCLASS : IP_RECVTOS, 1);
        set(SOL_SOCKET, SO_TIMESTAMPING, SOF_TIMESTAMPING_RX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE);
    } else {
        set(v6 ? SOL_IPV6 : SOL_IP, v6 ? IPV6_RECVERR : IP_RECVERR, 1);
        // Small packets need no identification for fragments, which costs time to make.
        set(v6 ? SOL_IPV6 : SOL_IP, v6 ? IPV6_MTU_DISCOVER : IP_MTU_DISCOVER,
            v6 ? IPV6_PMTUDISC_PROBE : IP_PMTUDISC_PROBE);
        numberFromZero();
    }
    SocketAddress local;
    const socklen_t size = toSocket(place.addr, port, local);
    if (bind(fd_, &local.any, size) != 0) refuse("bind");
}

ProbeSocket::~ProbeSocket() {
    close(fd_);
}

// The kernel begins again to count when the option is set anew.
void ProbeSocket::numberFromZero() {
    const int received = SOF_TIMESTAMPING_RX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE;
    for (const int flags : {received, received | SOF_TIMESTAMPING_TX_SCHED |
                                          SOF_TIMESTAMPING_OPT_ID | SOF_TIMESTAMPING_OPT_TSONLY})
        setsockopt(fd_, SOL_SOCKET, SO_TIMESTAMPING, &flags, sizeof flags);
    nextId_ = 0;
}

void ProbeSocket::send(std::span<const ProbeDatagram> datagrams,
                       const std::function<void(size_t, int)>& refused) {
    Slots& slots = ProbeSocket::slots();
    bool anyRefused = false;
    for (size_t first = 0; first < datagrams.size();) {
        const auto count = static_cast<unsigned>(std::min<size_t>(batch, datagrams.size() - first));
        for (unsigned i = 0; i < count; ++i) slots.prepareToSend(i, datagrams[first + i]);
        int sent = sendmmsg(fd_, slots.headers.data(), count, 0);
        // An error of an earlier datagram, from ICMP, is reported once in place of sending.
        if (sent < 0) sent = sendmmsg(fd_, slots.headers.data(), count, 0);
        if (sent < 0) {
            refused(first, errno);
            anyRefused = true;
            sent = 1;
        } else {
            nextId_ += static_cast<uint32_t>(sent);
        }
        first += static_cast<size_t>(sent);
    }
    // Which refused datagrams the kernel has counted depends on what refused them.
    if (anyRefused && role_ == Role::sender) numberFromZero();
}

// How many slots one system call filled.
unsigned ProbeSocket::fill(int flags) {
    slots().prepareToReceive();
    for (int attempt = 0; attempt < 2; ++attempt) {
        const int count = recvmmsg(fd_, slots().headers.data(), batch, flags, nullptr);
        if (count >= 0) return static_cast<unsigned>(count);
        if (errno == EAGAIN) return 0;
    }
    return 0;
}

bool ProbeSocket::receive(const std::function<void(const ProbeDatagram&)>& take) {
    const unsigned count = fill(0);
    for (unsigned i = 0; i < count; ++i)
        if (const auto datagram = slots().datagram(i, Control(slots().headers[i].msg_hdr)))
            take(*datagram);
    return count == batch;
}

bool ProbeSocket::receiveReports(const Reports& reports) {
    const unsigned count = fill(MSG_ERRQUEUE);
    for (unsigned i = 0; i < count; ++i) {
        const Control control(slots().headers[i].msg_hdr);
        if (!control.error) continue;
        if (control.error->ee_origin == SO_EE_ORIGIN_TIMESTAMPING && control.sinceEpoch)
            reports.transmitted(control.error->ee_data, *control.sinceEpoch);
        if (!isPortUnreachable(*control.error)) continue;
        if (const auto quoted = slots().datagram(i, control)) reports.portUnreachable(*quoted);
    }
    return count == batch;
}

}  // namespace Agent::Linux

#include "agent/linux/kernel/NetlinkSocket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <optional>
#include <string>

#include "platform/netz/Assert.h"
#include "platform/netz/Error.h"

namespace Agent::Linux {

namespace {

// The kernel sends at most 32 KiB of a dump and 64 KiB of a single object in one datagram.
constexpr size_t datagramSize = size_t{64} << 10;
constexpr int requestReceiveBuffer = 1 << 20;
// Requests per send. Replies to that many lookups stay well below the receive buffer even where an
// unprivileged process gets no larger one than the default of 208 KiB.
constexpr size_t window = 64;

[[noreturn]] void refuse(const char* what) {
    throw Vel::Error(std::string("netlink: ") + what + ": " + std::strerror(errno));
}

}  // namespace

// The buffers that one recvmmsg() fills. Pages that no datagram reaches stay untouched, so the
// unused length of each buffer costs address space only.
struct NetlinkSocket::Slots {
    std::unique_ptr<std::byte[]> bytes =
        std::make_unique_for_overwrite<std::byte[]>(batch * datagramSize);
    mmsghdr headers[batch] = {};
    iovec places[batch];
    sockaddr_nl senders[batch];

    Slots() {
        for (unsigned i = 0; i < batch; ++i) {
            places[i] = {bytes.get() + i * datagramSize, datagramSize};
            headers[i].msg_hdr.msg_iov = &places[i];
            headers[i].msg_hdr.msg_iovlen = 1;
            headers[i].msg_hdr.msg_name = &senders[i];
        }
    }
    bool truncated(unsigned i) const { return headers[i].msg_hdr.msg_flags & MSG_TRUNC; }
};

NetlinkSocket::NetlinkSocket(int receiveBuffer, int family)
    : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, family)),
      slots_(std::make_unique<Slots>()) {
    if (fd_ < 0) refuse("socket");
    const int on = 1;
    bool ready = true;
    for (int option : {NETLINK_GET_STRICT_CHK, NETLINK_EXT_ACK, NETLINK_CAP_ACK})
        ready = ready && setsockopt(fd_, SOL_NETLINK, option, &on, sizeof on) == 0;
    // The kernel delivers events only to sockets with a port number.
    sockaddr_nl self{};
    self.nl_family = AF_NETLINK;
    if (!ready || bind(fd_, reinterpret_cast<const sockaddr*>(&self), sizeof self) != 0) {
        close(fd_);
        refuse("setup");
    }
    // The first option requires CAP_NET_ADMIN; the second is limited to net.core.rmem_max.
    if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer) != 0)
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
}

NetlinkSocket::~NetlinkSocket() {
    close(fd_);
}

uint32_t NetlinkSocket::port() const {
    sockaddr_nl self{};
    socklen_t size = sizeof self;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&self), &size);
    return self.nl_pid;
}

void NetlinkSocket::subscribe(unsigned group) {
    if (setsockopt(fd_, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0)
        refuse("subscribe");
}

NetlinkSocket::Read NetlinkSocket::fill(unsigned& count) {
    for (mmsghdr& header : slots_->headers) header.msg_hdr.msg_namelen = sizeof(sockaddr_nl);
    int got = 0;
    do got = recvmmsg(fd_, slots_->headers, batch, 0, nullptr);
    while (got < 0 && errno == EINTR);
    if (got < 0) {
        VEL_ASSERT(errno != EBADF && errno != ENOTSOCK, "netlink socket was closed");
        return errno == EAGAIN ? Read::empty : Read::overrun;
    }
    count = static_cast<unsigned>(got);
    for (unsigned i = 0; i < count; ++i)
        if (slots_->truncated(i)) return Read::overrun;
    return Read::data;
}

// Empty for a datagram that was truncated or does not come from the kernel.
Bytes NetlinkSocket::datagram(unsigned i) const {
    if (slots_->truncated(i) || slots_->senders[i].nl_pid != 0) return {};
    return {slots_->bytes.get() + i * datagramSize, slots_->headers[i].msg_len};
}

bool NetlinkSocket::send(Bytes data) {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    return sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&kernel),
                  sizeof kernel) == static_cast<ssize_t>(data.size());
}

RequestSocket::RequestSocket(int family) : socket_(requestReceiveBuffer, family) {}

size_t RequestSocket::exchange(size_t count, const WriteRequest& write, const TakeReply& take) {
    size_t unanswered = 0;
    for (size_t first = 0; first < count; first += window) {
        const size_t size = std::min(window, count - first);
        uint64_t open = ~uint64_t{0} >> (window - size);  // a bit per request without a reply
        for (uint64_t before = 0; open != 0 && open != before;) {
            before = open;
            const uint32_t base = nextSequence_;
            nextSequence_ += window;
            writer_.clear();
            for (uint64_t rest = open; rest != 0; rest &= rest - 1) {
                const int i = std::countr_zero(rest);
                write(writer_, base + static_cast<uint32_t>(i), first + static_cast<size_t>(i));
            }
            if (!socket_.send(writer_.bytes())) break;
            const auto takeReplies = [&](Bytes data) {
                for (const Message& message : Messages(data)) {
                    const uint32_t i = message.sequence - base;
                    if (i >= window || !(open & uint64_t{1} << i)) continue;
                    open &= ~(uint64_t{1} << i);
                    take(first + i, message);
                }
            };
            while (open != 0 && socket_.receive(takeReplies) != NetlinkSocket::Read::empty) {
            }
        }
        unanswered += static_cast<size_t>(std::popcount(open));
    }
    return unanswered;
}

int RequestSocket::dump(const WriteDump& write, const TakeEntry& take) {
    const uint32_t sequence = nextSequence_++;
    writer_.clear();
    write(writer_, sequence);
    if (!socket_.send(writer_.bytes())) return errno;
    bool interrupted = false;
    std::optional<int> done;
    while (!done) {
        const auto read = socket_.receive([&](Bytes data) {
            for (const Message& message : Messages(data)) {
                if (message.sequence != sequence || done) continue;
                interrupted |= (message.flags & NLM_F_DUMP_INTR) != 0;
                if (message.type == NLMSG_DONE || message.type == NLMSG_ERROR)
                    done = errorOf(message);
                else
                    take(message);
            }
        });
        if (read == NetlinkSocket::Read::empty) return ENOBUFS;
        // Continue reading: the kernel starts no other dump on this socket before the end of this
        // one.
        interrupted |= read == NetlinkSocket::Read::overrun;
    }
    return *done == 0 && interrupted ? EAGAIN : *done;
}

int errorOf(const Message& message) {
    return static_cast<int>(-int64_t{message.header<int>().value_or(0)});
}

std::string_view refusalText(const Message& message) {
    if (message.type == NLMSG_ERROR && (message.flags & NLM_F_ACK_TLVS) != 0)
        for (const NetlinkAttribute& attribute : attributesAfter<nlmsgerr>(message))
            if (attribute.type == NLMSGERR_ATTR_MSG) return attribute.text();
    return {};
}

}  // namespace Agent::Linux

#include "agent/linux/kernel/NetlinkSocket.h"

#include <sys/socket.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <string>

#include "platform/netz/Assert.h"
#include "platform/netz/Error.h"

namespace Agent::Linux {

namespace {

// The kernel hands out at most 32 KiB of a dump and 64 KiB of a single object at a time.
constexpr size_t datagramSize = size_t{64} << 10;
constexpr int requestReceiveBuffer = 1 << 20;
// Requests per send. Answers to that many lookups stay well below the receive buffer even where an
// unprivileged process gets no larger one than the default of 208 KiB.
constexpr size_t window = 64;

[[noreturn]] void refuse(const char* what) {
    throw Vel::Error(std::string("netlink: ") + what + ": " + std::strerror(errno));
}

}  // namespace

NetlinkSocket::NetlinkSocket(int receiveBuffer)
    : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE)),
      buffer_(datagramSize) {
    if (fd_ < 0) refuse("socket");
    const int on = 1;
    bool ready = true;
    for (int option : {NETLINK_GET_STRICT_CHK, NETLINK_EXT_ACK, NETLINK_CAP_ACK})
        ready = ready && setsockopt(fd_, SOL_NETLINK, option, &on, sizeof on) == 0;
    // A socket without a port of its own is passed over when events are told.
    sockaddr_nl self{};
    self.nl_family = AF_NETLINK;
    if (!ready || bind(fd_, reinterpret_cast<const sockaddr*>(&self), sizeof self) != 0) {
        close(fd_);
        refuse("setup");
    }
    // The first needs CAP_NET_ADMIN; the second is cut to net.core.rmem_max.
    if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer) != 0)
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
}

NetlinkSocket::~NetlinkSocket() {
    close(fd_);
}

void NetlinkSocket::subscribe(unsigned group) {
    if (setsockopt(fd_, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0)
        refuse("subscribe");
}

NetlinkSocket::Read NetlinkSocket::receive(Bytes& data) {
    for (;;) {
        sockaddr_nl sender{};
        socklen_t senderSize = sizeof sender;
        const ssize_t got = recvfrom(fd_, buffer_.data(), buffer_.size(), MSG_TRUNC,
                                     reinterpret_cast<sockaddr*>(&sender), &senderSize);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            VEL_ASSERT(errno != EBADF && errno != ENOTSOCK, "netlink socket was closed");
            return errno == EAGAIN ? Read::empty : Read::overrun;
        }
        if (sender.nl_pid != 0) continue;  // not from the kernel
        if (static_cast<size_t>(got) > buffer_.size()) return Read::overrun;
        data = Bytes(buffer_).first(static_cast<size_t>(got));
        return Read::data;
    }
}

bool NetlinkSocket::send(Bytes data) {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    return sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&kernel),
                  sizeof kernel) == static_cast<ssize_t>(data.size());
}

RequestSocket::RequestSocket() : socket_(requestReceiveBuffer) {}

size_t RequestSocket::exchange(size_t count, const WriteRequest& write, const TakeAnswer& take) {
    size_t unanswered = 0;
    for (size_t first = 0; first < count; first += window) {
        const size_t size = std::min(window, count - first);
        uint64_t open = ~uint64_t{0} >> (window - size);  // a bit per request without an answer
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
            Bytes data;
            for (auto read = socket_.receive(data); read != NetlinkSocket::Read::empty;
                 read = socket_.receive(data)) {
                if (read == NetlinkSocket::Read::overrun) continue;
                for (const Message& message : Messages(data)) {
                    const uint32_t i = message.sequence - base;
                    if (i >= window || !(open & uint64_t{1} << i)) continue;
                    open &= ~(uint64_t{1} << i);
                    take(first + i, message);
                }
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
    for (Bytes data;;) {
        const auto read = socket_.receive(data);
        if (read == NetlinkSocket::Read::empty) return ENOBUFS;
        if (read == NetlinkSocket::Read::overrun) {
            interrupted = true;  // read on: a dump left half read would block the next one
            continue;
        }
        for (const Message& message : Messages(data)) {
            if (message.sequence != sequence) continue;
            interrupted |= (message.flags & NLM_F_DUMP_INTR) != 0;
            if (message.type == NLMSG_ERROR) return errorOf(message);
            if (message.type == NLMSG_DONE)
                return errorOf(message) != 0 ? errorOf(message) : interrupted ? EAGAIN : 0;
            take(message);
        }
    }
}

int errorOf(const Message& message) {
    return static_cast<int>(-int64_t{message.header<int>().value_or(0)});
}

std::string_view refusalText(const Message& message) {
    if (message.type == NLMSG_ERROR && (message.flags & NLM_F_ACK_TLVS) != 0)
        for (const Attribute& attribute : attributesAfter<nlmsgerr>(message))
            if (attribute.type == NLMSGERR_ATTR_MSG) return attribute.text();
    return {};
}

}  // namespace Agent::Linux

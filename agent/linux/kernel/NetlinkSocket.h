// The agent's two sockets to rtnetlink: one receives events, the other sends requests. They are
// separate so that a reply never waits behind a flood of events, and lost events never include a
// reply.
//
// Single-threaded; nothing here blocks. The kernel replies to a request while it is being sent, so
// a reply that has not arrived when the send returns has been lost.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string_view>

#include "agent/linux/kernel/NetlinkMessage.h"

namespace Agent::Linux {

// A socket of a netlink family (NETLINK_ROUTE, NETLINK_NETFILTER), closed on exec, with strict
// checking of requests and extended acknowledgements. Raises Vel::Error if the kernel refuses it.
class NetlinkSocket {
  public:
    // `receiveBuffer`: bytes that the kernel may queue for this socket, limited to
    // net.core.rmem_max without CAP_NET_ADMIN.
    explicit NetlinkSocket(int receiveBuffer, int family = NETLINK_ROUTE);
    ~NetlinkSocket();
    NetlinkSocket(const NetlinkSocket&) = delete;
    NetlinkSocket& operator=(const NetlinkSocket&) = delete;

    int fd() const { return fd_; }
    // Names this socket in events that follow from its requests (nlmsg_pid).
    uint32_t port() const;
    // Joins a multicast group, an RTNLGRP_... number.
    void subscribe(unsigned group);

    enum class Read {
        data,
        empty,    // nothing is queued
        overrun,  // something was lost: ENOBUFS, or a datagram that is too long
    };
    // Calls take(Bytes) for the datagrams that one system call returns, at most `batch`. The bytes
    // are valid during the call.
    static constexpr unsigned batch = 64;
    template <class F>
    Read receive(F take) {
        unsigned count = 0;
        const Read read = fill(count);
        for (unsigned i = 0; i < count; ++i) take(datagram(i));
        return read;
    }
    bool send(Bytes data);

  private:
    struct Slots;
    Read fill(unsigned& count);
    Bytes datagram(unsigned i) const;

    int fd_;
    const std::unique_ptr<Slots> slots_;
};

class RequestSocket {
  public:
    explicit RequestSocket(int family = NETLINK_ROUTE);
    uint32_t port() const { return socket_.port(); }

    // Writes the request at a position, with the given sequence number.
    using WriteRequest = std::function<void(MessageWriter&, uint32_t sequence, size_t position)>;
    using TakeReply = std::function<void(size_t position, const Message&)>;
    // Sends `count` requests, as many per system call as replies certainly fit into the receive
    // buffer. Each must be a request that the kernel answers with a single message, and harmless to
    // repeat: a request whose reply is lost is sent again. Returns how many stayed without a reply.
    size_t exchange(size_t count, const WriteRequest& write, const TakeReply& take);

    using WriteDump = std::function<void(MessageWriter&, uint32_t sequence)>;
    using TakeEntry = std::function<void(const Message&)>;
    // Dumps all objects of a kind. Returns 0 or the error; EAGAIN if objects changed meanwhile, so
    // that some may be missing.
    int dump(const WriteDump& write, const TakeEntry& take);

  private:
    NetlinkSocket socket_;
    MessageWriter writer_;
    uint32_t nextSequence_ = 1;
};

// The error of an NLMSG_ERROR or NLMSG_DONE message as a positive errno value; 0 for an
// acknowledgement.
int errorOf(const Message& message);
// The text with which the kernel explains a refusal (NLMSGERR_ATTR_MSG); empty if there is none.
std::string_view refusalText(const Message& message);

}  // namespace Agent::Linux

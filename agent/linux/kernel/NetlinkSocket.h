// The two ends at which the agent talks to rtnetlink: a socket that hears events, and one that asks
// and is answered. They are apart so that an answer never waits behind a flood of events, and a
// lost event never takes an answer with it.
//
// Single-threaded; nothing here blocks. The kernel answers a request while it is being sent, so
// whatever has not arrived when the send returns has been lost.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string_view>
#include <vector>

#include "agent/linux/kernel/NetlinkMessage.h"

namespace Agent::Linux {

// A socket of family NETLINK_ROUTE, closed on exec, with strict checking of requests and extended
// acknowledgements. Raises Vel::Error where the kernel refuses one.
class NetlinkSocket {
  public:
    // `receiveBuffer` in bytes is what the kernel may queue for us, as far as it lets us.
    explicit NetlinkSocket(int receiveBuffer);
    ~NetlinkSocket();
    NetlinkSocket(const NetlinkSocket&) = delete;
    NetlinkSocket& operator=(const NetlinkSocket&) = delete;

    int fd() const { return fd_; }
    // Hears what is told to a group, an RTNLGRP_... number.
    void subscribe(unsigned group);

    enum class Read {
        data,
        empty,    // nothing more for now
        overrun,  // something was lost: ENOBUFS, or a datagram too long
    };
    // The next datagram; `data` is valid until the next call.
    Read receive(Bytes& data);
    bool send(Bytes data);

  private:
    int fd_;
    std::vector<std::byte> buffer_;
};

class RequestSocket {
  public:
    RequestSocket();

    // Writes the request of a position, under the sequence number given.
    using WriteRequest = std::function<void(MessageWriter&, uint32_t sequence, size_t position)>;
    using TakeAnswer = std::function<void(size_t position, const Message&)>;
    // Puts `count` requests, as many of them in one send as answers are sure to fit the receive
    // buffer. Each must be one that is answered by a single message. Those whose answer is lost are
    // put again, so they must also be harmless to repeat. Returns how many stayed unanswered.
    size_t exchange(size_t count, const WriteRequest& write, const TakeAnswer& take);

    using WriteDump = std::function<void(MessageWriter&, uint32_t sequence)>;
    using TakeEntry = std::function<void(const Message&)>;
    // Reads a table. Returns 0, or the error; EAGAIN if the table changed meanwhile, so that
    // entries may be missing.
    int dump(const WriteDump& write, const TakeEntry& take);

  private:
    NetlinkSocket socket_;
    MessageWriter writer_;
    uint32_t nextSequence_ = 1;
};

// The error of an NLMSG_ERROR or NLMSG_DONE message as a positive errno value, 0 for an
// acknowledgement.
int errorOf(const Message& message);
// What the kernel says about a request it refused; empty if nothing.
std::string_view refusalText(const Message& message);

}  // namespace Agent::Linux

// A UDP socket for probes or answers, at one address on one interface. Datagrams are sent and
// received many at a time, and the kernel stamps them: received ones when they come from the
// interface, sent ones when they enter its queue. So a time covers what the path does to a packet,
// the queue of the own interface included, and not what delays this process.
//
// Used by one thread at a time; nothing here blocks.
#pragma once

#include <sys/uio.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <span>
#include <vector>

#include "platform/netz/IpGenAddr.h"

namespace Agent::Linux {

struct ProbeDatagram {
    Netz::IpGenAddr peer{};
    uint16_t port = 0;
    uint8_t trafficClass = 0;  // DSCP and ECN
    uint8_t ttl = 0;           // of a received one
    // When it was received, by the clock of the time of day; empty if the kernel gave no stamp.
    std::optional<std::chrono::nanoseconds> sinceEpoch{};
    std::span<const std::byte> data{};
};

// The end of paths at one address on one interface.
struct Place {
    Netz::IpGenAddr addr;
    uint32_t ifIndex = 0;

    auto operator<=>(const Place&) const = default;
};

class ProbeSocket {
  public:
    // sender: learns when its datagrams were sent, and which were answered by ICMP. reflector:
    // learns TTL and traffic class of what it receives.
    enum class Role { sender, reflector };
    // Longer datagrams are ignored.
    static constexpr size_t maxSize = 2048;
    // Datagrams that one system call sends or receives at most.
    static constexpr unsigned batch = 64;

    // `port`: 0 for any. Raises Vel::Error if the kernel refuses it.
    ProbeSocket(Role role, const Place& place, uint16_t port);
    ~ProbeSocket();
    ProbeSocket(const ProbeSocket&) = delete;
    ProbeSocket& operator=(const ProbeSocket&) = delete;

    int fd() const { return fd_; }

    // Calls refused(position, errno) for each that cannot be sent. The others of a sender get
    // consecutive numbers, from nextId() before the call.
    void send(std::span<const ProbeDatagram> datagrams,
              const std::function<void(size_t, int)>& refused);
    uint32_t nextId() const { return nextId_; }

    // What one system call takes from the queue; returns whether there may be more. The data is
    // valid until this thread's next call for any socket.
    bool receive(const std::function<void(const ProbeDatagram&)>& take);

    struct Reports {
        // When the datagram of that number entered the queue of the interface.
        std::function<void(uint32_t id, std::chrono::nanoseconds sinceEpoch)> transmitted;
        // The peer has no socket at the port; `data`: what it quotes of the datagram.
        std::function<void(const ProbeDatagram& quoted)> portUnreachable;
    };
    // As receive().
    bool receiveReports(const Reports& reports);

  private:
    struct Slots;
    static Slots& slots();
    unsigned fill(int flags);
    void numberFromZero();

    const int fd_;
    const Role role_;
    uint32_t nextId_ = 0;
};

}  // namespace Agent::Linux

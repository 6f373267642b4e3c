// Counts of the tunnel packets from nftables and conntrack, and notification when somebody else
// changes the agent's table. Formats: <linux/netfilter/nf_tables.h>,
// <linux/netfilter/nfnetlink_conntrack.h>.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <thread>
#include <tuple>

#include "agent/linux/kernel/NetlinkSocket.h"

namespace Agent::Linux {

// Tunnel packets of one mark between two addresses: those of an application on a path.
struct TunnelFlow {
    uint32_t mark = 0;
    Netz::IpGenAddr source;
    Netz::IpGenAddr destination;

    auto operator<=>(const TunnelFlow&) const = default;
};
struct PacketCount {
    uint64_t packets = 0;
    uint64_t bytes = 0;  // of the tunnel's packets, their headers included
};
using PacketCounts = std::map<TunnelFlow, PacketCount>;

// Adds the elements of a set with counters, of the type "mark . ipv4_addr . ipv4_addr" or
// "mark . ipv6_addr . ipv6_addr". False if there is no such set, or if it changed meanwhile.
bool readCounters(RequestSocket& netfilter, const char* table, const char* set, bool v6,
                  PacketCounts& counts);

// Counts connections per tunnel flow: the outer source port of a tunnel packet is made from the
// flow inside, so that conntrack has an entry for each. A thread reads the table of connections,
// since the kernel walks the whole table within one system call if few of them match: 11 ms for
// 262,144 buckets.
class FlowCount {
  public:
    using Counts = std::map<TunnelFlow, uint64_t>;

    // `done` gets the result of each count that succeeds, within handleReadable().
    explicit FlowCount(std::function<void(Counts)> done);
    ~FlowCount();
    FlowCount(const FlowCount&) = delete;
    FlowCount& operator=(const FlowCount&) = delete;

    int fd() const { return ready_; }
    // Begins a count of the connections to the port whose mark has these bits, unless one is under
    // way.
    void start(uint16_t udpPort, uint32_t mark, uint32_t mask);
    // Call while fd() is readable.
    void handleReadable();

  private:
    void read(uint16_t udpPort, uint32_t mark, uint32_t mask);

    const std::function<void(Counts)> done_;
    const int ready_;     // an eventfd
    std::thread thread_;  // joinable while a count is under way; the following is the thread's then
    RequestSocket netfilter_{NETLINK_NETFILTER};
    bool succeeded_ = false;
    Counts counts_;
};

// Notices changes of a table of nftables.
class TableWatch {
  public:
    explicit TableWatch(std::string table);

    int fd() const { return socket_.fd(); }
    // Reads all queued events. Returns whether one concerns the table, or events were lost.
    bool changed();

  private:
    const std::string table_;
    NetlinkSocket socket_;
};

}  // namespace Agent::Linux

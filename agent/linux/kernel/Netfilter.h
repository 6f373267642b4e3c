// Counts of the tunnel packets from nftables and conntrack, and notification when somebody else
// changes the agent's table. Formats: <linux/netfilter/nf_tables.h>,
// <linux/netfilter/nfnetlink_conntrack.h>.
#pragma once

#include <functional>
#include <map>
#include <optional>
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
// flow inside, so that conntrack has an entry for each. The table of connections may be long, so it
// is read in steps, between which the event thread does other work.
class FlowCount {
  public:
    using Counts = std::map<TunnelFlow, uint64_t>;

    // `done` gets the result of each count.
    explicit FlowCount(std::function<void(Counts)> done);

    int fd() const { return socket_.fd(); }
    // Begins a count of the connections to the port whose mark has these bits, unless one is under
    // way.
    void start(uint16_t udpPort, uint32_t mark, uint32_t mask);
    // Call while fd() is readable.
    void handleReadable();

  private:
    NetlinkSocket socket_;
    const std::function<void(Counts)> done_;
    uint16_t udpPort_ = 0;
    uint32_t sequence_ = 0;
    bool running_ = false;
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

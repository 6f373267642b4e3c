#include "agent/linux/kernel/Netfilter.h"

#include <arpa/inet.h>
#include <endian.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "agent/linux/kernel/Thread.h"
#include "platform/netz/Error.h"

namespace Agent::Linux {

namespace {

constexpr int receiveBuffer = 1 << 20;

constexpr uint16_t typeOf(unsigned subsystem, unsigned message) {
    return static_cast<uint16_t>(subsystem << 8 | message);
}

nfgenmsg header(uint8_t family) {
    return {family, NFNETLINK_V0, 0};
}

uint32_t be32(Bytes data) {
    return ntohl(readAs<uint32_t>(data).value_or(0));
}
uint64_t be64(Bytes data) {
    return be64toh(readAs<uint64_t>(data).value_or(0));
}

PacketCount countOf(Bytes expression) {
    PacketCount count;
    for (const NetlinkAttribute& attribute : Attributes(expression)) {
        if (attribute.type != NFTA_EXPR_DATA) continue;
        for (const NetlinkAttribute& data : Attributes(attribute.data)) {
            if (data.type == NFTA_COUNTER_BYTES) count.bytes = be64(data.data);
            if (data.type == NFTA_COUNTER_PACKETS) count.packets = be64(data.data);
        }
    }
    return count;
}

// A key of a concatenation: each part fills whole words of four bytes.
std::optional<TunnelFlow> flowOf(Bytes key, unsigned family) {
    const size_t size = family == AF_INET6 ? 16 : 4;
    const auto mark = readAs<uint32_t>(key);
    const auto source = readAddr(family, dropFront(key, sizeof(uint32_t)));
    const auto destination = readAddr(family, dropFront(key, sizeof(uint32_t) + size));
    if (!mark || !source || !destination) return {};
    return TunnelFlow{*mark, *source, *destination};
}

void takeElement(Bytes element, unsigned family, PacketCounts& counts) {
    std::optional<TunnelFlow> flow;
    PacketCount count;
    for (const NetlinkAttribute& attribute : Attributes(element)) {
        if (attribute.type == NFTA_SET_ELEM_KEY)
            for (const NetlinkAttribute& data : Attributes(attribute.data))
                if (data.type == NFTA_DATA_VALUE) flow = flowOf(data.data, family);
        if (attribute.type == NFTA_SET_ELEM_EXPR) count = countOf(attribute.data);
    }
    if (flow) counts[*flow] = count;
}

// The tunnel flow of a connection's first direction; nothing of other connections.
std::optional<TunnelFlow> flowOf(const Message& message, uint16_t udpPort) {
    TunnelFlow flow;
    uint8_t protocol = 0;
    uint16_t port = 0;
    const auto family = message.header<nfgenmsg>().value_or(nfgenmsg{}).nfgen_family;
    const bool v6 = family == AF_INET6;
    for (const NetlinkAttribute& attribute : attributesAfter<nfgenmsg>(message)) {
        if (attribute.type == CTA_MARK) flow.mark = be32(attribute.data);
        if (attribute.type != CTA_TUPLE_ORIG) continue;
        for (const NetlinkAttribute& part : Attributes(attribute.data))
            for (const NetlinkAttribute& field : Attributes(part.data)) {
                if (part.type == CTA_TUPLE_IP && field.type == (v6 ? CTA_IP_V6_SRC : CTA_IP_V4_SRC))
                    flow.source = readAddr(family, field.data).value_or(flow.source);
                if (part.type == CTA_TUPLE_IP && field.type == (v6 ? CTA_IP_V6_DST : CTA_IP_V4_DST))
                    flow.destination = readAddr(family, field.data).value_or(flow.destination);
                if (part.type == CTA_TUPLE_PROTO && field.type == CTA_PROTO_NUM)
                    protocol = readAs<uint8_t>(field.data).value_or(0);
                if (part.type == CTA_TUPLE_PROTO && field.type == CTA_PROTO_DST_PORT)
                    port = ntohs(readAs<uint16_t>(field.data).value_or(0));
            }
    }
    if (protocol != IPPROTO_UDP || port != udpPort) return {};
    return flow;
}

}  // namespace

bool readCounters(RequestSocket& netfilter, const char* table, const char* set, bool v6,
                  PacketCounts& counts) {
    const auto write = [&](MessageWriter& writer, uint32_t sequence) {
        writer.begin(typeOf(NFNL_SUBSYS_NFTABLES, NFT_MSG_GETSETELEM), NLM_F_DUMP, sequence,
                     header(NFPROTO_INET));
        for (const auto& [type, name] :
             {std::pair(NFTA_SET_ELEM_LIST_TABLE, table), std::pair(NFTA_SET_ELEM_LIST_SET, set)})
            writer.attribute(static_cast<uint16_t>(type),
                             std::string_view(name, std::strlen(name) + 1));
    };
    const auto take = [&](const Message& message) {
        for (const NetlinkAttribute& list : attributesAfter<nfgenmsg>(message))
            if (list.type == NFTA_SET_ELEM_LIST_ELEMENTS)
                for (const NetlinkAttribute& element : Attributes(list.data))
                    takeElement(element.data, v6 ? AF_INET6 : AF_INET, counts);
    };
    return netfilter.dump(write, take) == 0;
}

FlowCount::FlowCount(std::function<void(Counts)> done)
    : done_(std::move(done)), ready_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (ready_ < 0) throw Vel::Error(std::string("eventfd: ") + std::strerror(errno));
}

FlowCount::~FlowCount() {
    if (thread_.joinable()) thread_.join();
    close(ready_);
}

void FlowCount::start(uint16_t udpPort, uint32_t mark, uint32_t mask) try {
    if (thread_.joinable()) return;
    thread_ = startThread("flows", [=, this] { read(udpPort, mark, mask); });
} catch (const std::system_error&) {
    // The next count may find a thread.
}

void FlowCount::read(uint16_t udpPort, uint32_t mark, uint32_t mask) {
    const auto write = [&](MessageWriter& writer, uint32_t sequence) {
        writer.begin(typeOf(NFNL_SUBSYS_CTNETLINK, IPCTNL_MSG_CT_GET), NLM_F_DUMP, sequence,
                     header(AF_UNSPEC));
        writer.attribute(CTA_MARK, htonl(mark));
        writer.attribute(CTA_MARK_MASK, htonl(mask));
    };
    const auto take = [&](const Message& message) {
        if (const auto flow = flowOf(message, udpPort)) ++counts_[*flow];
    };
    counts_.clear();
    succeeded_ = netfilter_.dump(write, take) == 0;
    eventfd_write(ready_, 1);
}

void FlowCount::handleReadable() {
    eventfd_t number = 0;
    if (eventfd_read(ready_, &number) != 0) return;
    thread_.join();
    if (succeeded_) done_(std::move(counts_));
}

TableWatch::TableWatch(std::string table)
    : table_(std::move(table)), socket_(receiveBuffer, NETLINK_NETFILTER) {
    socket_.subscribe(NFNLGRP_NFTABLES);
}

bool TableWatch::changed() {
    bool changed = false;
    auto read = NetlinkSocket::Read::data;
    while (read != NetlinkSocket::Read::empty) {
        read = socket_.receive([&](Bytes data) {
            for (const Message& message : Messages(data))
                for (const NetlinkAttribute& attribute : attributesAfter<nfgenmsg>(message))
                    // The first attribute of a table, chain, rule or set names the table.
                    changed |= attribute.type == NFTA_TABLE_NAME && attribute.text() == table_;
        });
        changed |= read == NetlinkSocket::Read::overrun;
    }
    return changed;
}

}  // namespace Agent::Linux

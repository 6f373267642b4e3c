#include "agent/linux/kernel/NetlinkMessage.h"

#include <sys/socket.h>

namespace Agent::Linux {

std::optional<Netz::IpGenAddr> readAddr(unsigned family, Bytes bytes) {
    if (family == AF_INET) {
        if (auto octets = readAs<std::array<uint8_t, 4>>(bytes))
            return Netz::IpGenAddr::fromV4(*octets);
    } else if (family == AF_INET6) {
        if (auto octets = readAs<std::array<uint8_t, 16>>(bytes))
            return Netz::IpGenAddr::fromV6(*octets);
    }
    return {};
}

std::string_view NetlinkAttribute::text() const {
    std::string_view whole(reinterpret_cast<const char*>(data.data()), data.size());
    return whole.substr(0, whole.find('\0'));
}

std::optional<NetlinkAttribute> takeAttribute(Bytes& rest) {
    auto head = readAs<nlattr>(rest);
    if (!head || head->nla_len < sizeof(nlattr) || head->nla_len > rest.size()) return {};
    NetlinkAttribute attribute{static_cast<uint16_t>(head->nla_type & NLA_TYPE_MASK),
                               rest.subspan(sizeof(nlattr), head->nla_len - sizeof(nlattr))};
    rest = dropFront(rest, aligned(head->nla_len));
    return attribute;
}

std::optional<Message> takeMessage(Bytes& rest) {
    auto head = readAs<nlmsghdr>(rest);
    if (!head || head->nlmsg_len < sizeof(nlmsghdr) || head->nlmsg_len > rest.size()) return {};
    Message message{head->nlmsg_type, head->nlmsg_flags, head->nlmsg_seq, head->nlmsg_pid,
                    rest.subspan(sizeof(nlmsghdr), head->nlmsg_len - sizeof(nlmsghdr))};
    rest = dropFront(rest, aligned(head->nlmsg_len));
    return message;
}

void MessageWriter::append(Bytes data) {
    bytes_.insert(bytes_.end(), data.begin(), data.end());
    bytes_.resize(aligned(bytes_.size()));
    const auto length = static_cast<uint32_t>(bytes_.size() - start_);
    std::memcpy(bytes_.data() + start_, &length, sizeof length);
}

void MessageWriter::message(Bytes written, uint32_t sequence) {
    start_ = bytes_.size();
    append(written);
    std::memcpy(bytes_.data() + start_ + offsetof(nlmsghdr, nlmsg_seq), &sequence, sizeof sequence);
}

void MessageWriter::attribute(uint16_t type, Bytes data) {
    append(nlattr{static_cast<uint16_t>(sizeof(nlattr) + data.size()), type});
    append(data);
}

}  // namespace Agent::Linux

#include "agent/model/ForwardingTypes.h"

#include <netinet/in.h>

#include <algorithm>
#include <charconv>

namespace Agent {

namespace {

template <class Number>
std::optional<Number> numberIn(std::string_view text) {
    Number number{};
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end) return std::nullopt;
    return number;
}

struct Named {
    const char* name;
    uint8_t number;
};

// https://www.iana.org/assignments/protocol-numbers
constexpr Named protocols[] = {{"icmp", IPPROTO_ICMP},
                               {"igmp", IPPROTO_IGMP},
                               {"ipip", IPPROTO_IPIP},
                               {"tcp", IPPROTO_TCP},
                               {"udp", IPPROTO_UDP},
                               {"dccp", IPPROTO_DCCP},
                               {"ipv6", IPPROTO_IPV6},
                               {"rsvp", IPPROTO_RSVP},
                               {"gre", IPPROTO_GRE},
                               {"esp", IPPROTO_ESP},
                               {"ah", IPPROTO_AH},
                               {"ipv6-icmp", IPPROTO_ICMPV6},
                               {"icmpv6", IPPROTO_ICMPV6},
                               {"eigrp", 88},
                               {"ospf", 89},
                               {"pim", IPPROTO_PIM},
                               {"vrrp", 112},
                               {"l2tp", 115},
                               {"sctp", IPPROTO_SCTP},
                               {"udplite", IPPROTO_UDPLITE}};

// https://www.iana.org/assignments/dscp-registry
constexpr Named codePoints[] = {
    {"cs0", 0},   {"cs1", 8},   {"cs2", 16},  {"cs3", 24},  {"cs4", 32},  {"cs5", 40},
    {"cs6", 48},  {"cs7", 56},  {"af11", 10}, {"af12", 12}, {"af13", 14}, {"af21", 18},
    {"af22", 20}, {"af23", 22}, {"af31", 26}, {"af32", 28}, {"af33", 30}, {"af41", 34},
    {"af42", 36}, {"af43", 38}, {"ef", 46}};

template <size_t n>
std::optional<uint8_t> numberOf(const Named (&table)[n], std::string_view name) {
    const auto found = std::ranges::find(table, name, &Named::name);
    if (found == std::end(table)) return std::nullopt;
    return found->number;
}
// The first name that the table has for a number, or the number itself.
template <size_t n>
std::string nameOf(const Named (&table)[n], uint8_t number) {
    const auto found = std::ranges::find(table, number, &Named::number);
    return found == std::end(table) ? std::to_string(number) : found->name;
}

}  // namespace

IpPrefix IpPrefix::of(const Netz::IpGenAddr& addr, uint8_t prefixLength) {
    std::array<uint8_t, 16> octets{};
    for (unsigned bit = 0; bit < prefixLength; bit += 8) {
        const auto kept = std::min(8U, prefixLength - bit);
        octets[bit / 8] = static_cast<uint8_t>(addr.data()[bit / 8] & (0xff00 >> kept));
    }
    const auto network =
        addr.isV6() ? Netz::IpGenAddr::fromV6(octets)
                    : Netz::IpGenAddr::fromV4({octets[0], octets[1], octets[2], octets[3]});
    return {{network, prefixLength}};
}

IpPrefix IpPrefix::fromText(std::string_view text) {
    if (const auto read = parse(text)) {
        const IpPrefix network = of(read->addr, read->prefixLength);
        if (network != IpPrefix{*read})
            throw Vel::Error("\"" + read->stringValue() + "\" is an address in the network " +
                             network.stringValue() + "; write the network, or " +
                             of(read->addr, static_cast<uint8_t>(read->addr.bits())).stringValue() +
                             " for the address alone");
        return network;
    }
    if (const auto addr = Netz::IpGenAddr::parse(text))
        throw Vel::Error("\"" + std::string(text) +
                         "\" lacks its prefix length; the address alone is " +
                         of(*addr, static_cast<uint8_t>(addr->bits())).stringValue());
    Vel::expected("a prefix such as 10.1.0.0/16 or 2001:db8::/32", text);
}

PortRange PortRange::fromText(std::string_view text) {
    const size_t dash = text.find('-');
    const auto first = numberIn<uint16_t>(text.substr(0, dash));
    const auto last = dash == text.npos ? first : numberIn<uint16_t>(text.substr(dash + 1));
    if (!first || !last || *first == 0 || *last == 0)
        Vel::expected("a port from 1 to 65535, or a range such as 5060-5061", text);
    if (*first > *last)
        throw Vel::Error("the range \"" + std::string(text) + "\" ends before it begins");
    return {*first, *last};
}

std::string PortRange::stringValue() const {
    std::string text = std::to_string(first);
    if (last != first) text += "-" + std::to_string(last);
    return text;
}

IpProtocol IpProtocol::fromText(std::string_view text) {
    if (text == "any") return {};
    auto number = numberIn<uint8_t>(text);
    if (!number) number = numberOf(protocols, text);
    if (!number)
        Vel::expected("any, an IP protocol such as tcp, udp or icmp, or its number from 0 to 255",
                      text);
    return {number};
}

std::string IpProtocol::stringValue() const {
    return number ? nameOf(protocols, *number) : "any";
}

bool IpProtocol::hasPorts() const {
    if (!number) return true;
    return *number == IPPROTO_TCP || *number == IPPROTO_UDP || *number == IPPROTO_SCTP ||
           *number == IPPROTO_DCCP || *number == IPPROTO_UDPLITE;
}

Dscp Dscp::fromText(std::string_view text) {
    auto value = numberIn<uint8_t>(text);
    if (!value) value = numberOf(codePoints, text);
    if (!value || *value > 63)
        Vel::expected("a DSCP such as ef, af41 or cs5, or its number from 0 to 63", text);
    return {*value};
}

std::string Dscp::stringValue() const {
    return nameOf(codePoints, value);
}

}  // namespace Agent

// Types of the forwarding configuration that describe packets: prefixes, port ranges, IP protocols,
// DSCPs. fromText() parses each from its text and throws Vel::Error with the reason; stringValue()
// gives the normal form.
#pragma once

#include <optional>

#include "platform/vel/Value.h"

namespace Agent {

// A network: "10.1.0.0/16" or "2001:db8::/32". The bits behind the prefix length are zero.
struct IpPrefix : Netz::IpAddrWithMask {
    static IpPrefix fromText(std::string_view text);
    // The network that contains an address.
    static IpPrefix of(const Netz::IpGenAddr& addr, uint8_t prefixLength);

    bool operator==(const IpPrefix&) const = default;
    auto operator<=>(const IpPrefix&) const = default;
};

// One or more adjacent ports, from 1 to 65535: "5060" or "5060-5061".
struct PortRange {
    uint16_t first = 0, last = 0;  // first <= last

    static PortRange fromText(std::string_view text);
    std::string stringValue() const;

    bool operator==(const PortRange&) const = default;
    auto operator<=>(const PortRange&) const = default;
};

// The protocol number of the IP header: "udp", or "89", or "any".
struct IpProtocol {
    std::optional<uint8_t> number;  // absent: any

    // Accepts the number of every protocol, and the names of common ones as in IANA's registry of
    // protocol numbers, in lower case.
    static IpProtocol fromText(std::string_view text);
    std::string stringValue() const;
    // Whether its packets can have ports; true for any.
    bool hasPorts() const;

    bool operator==(const IpProtocol&) const = default;
};

// A differentiated services code point, from 0 to 63: "ef" (RFC 3246), "af11" to "af43" (RFC 2597),
// "cs0" to "cs7" (RFC 2474), or "46".
struct Dscp {
    uint8_t value = 0;

    static Dscp fromText(std::string_view text);
    std::string stringValue() const;

    bool operator==(const Dscp&) const = default;
    auto operator<=>(const Dscp&) const = default;
};

// Used for attributes and for keys of sets. A number is accepted in place of its text.
template <class T>
struct TextCodec {
    static constexpr bool isText = false;
    static Vel::Datum datum(const T& v) { return {v.stringValue()}; }
    static T fromDatum(const Vel::Datum& d) {
        if (const Vel::U64* number = d.as<Vel::U64>()) return T::fromText(std::to_string(*number));
        const Vel::String* text = d.as<Vel::String>();
        if (!text) Vel::expected("text or a number", d);
        return T::fromText(*text);
    }
    static std::string key(const T& v) { return v.stringValue(); }
    static T fromKey(std::string_view text) { return T::fromText(text); }
    static Vel::U64 mix(const T& v) { return Netz::hashMix(0, Netz::hashBytes(v.stringValue())); }
};

}  // namespace Agent

template <>
struct Vel::Codec<Agent::IpPrefix> : Agent::TextCodec<Agent::IpPrefix> {};
template <>
struct Vel::Codec<Agent::PortRange> : Agent::TextCodec<Agent::PortRange> {};
template <>
struct Vel::Codec<Agent::IpProtocol> : Agent::TextCodec<Agent::IpProtocol> {};
template <>
struct Vel::Codec<Agent::Dscp> : Agent::TextCodec<Agent::Dscp> {
    static Datum datum(const Agent::Dscp& v) { return {U64{v.value}}; }
};

// An attribute that may be absent; null stands for that.
template <class T>
struct Vel::Codec<std::optional<T>> {
    static Datum datum(const std::optional<T>& v) { return v ? Codec<T>::datum(*v) : Datum{}; }
    static std::optional<T> fromDatum(const Datum& d) {
        return d.isNull() ? std::nullopt : std::optional<T>(Codec<T>::fromDatum(d));
    }
};

// An address together with the length of its network prefix, as assigned to an interface:
// "203.0.113.1/24". Host bits are kept. The default is "0.0.0.0/0", which means no address.
#pragma once

#include <compare>
#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

#include "platform/netz/IpGenAddr.h"

namespace Netz {

struct VEL_EXPORT IpAddrWithMask {
    IpGenAddr addr;
    uint8_t prefixLength = 0;  // 0..32 for IPv4, 0..128 for IPv6

    // Strict: an address, a slash, a decimal length in range without leading zeros.
    static std::optional<IpAddrWithMask> parse(std::string_view text);

    // Whether an address is in the prefix; an address of the other family is not.
    bool contains(const IpGenAddr& address) const;

    std::string stringValue() const;
    uint32_t hash() const { return static_cast<uint32_t>(hashMix(addr.mix(), prefixLength) >> 32); }

    bool operator==(const IpAddrWithMask&) const = default;
    auto operator<=>(const IpAddrWithMask&) const = default;
};

VEL_EXPORT std::ostream& operator<<(std::ostream& out, const IpAddrWithMask& value);

}  // namespace Netz

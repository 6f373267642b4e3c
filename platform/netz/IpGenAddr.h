// An IPv4 or IPv6 address as a value: trivially copyable, 20 bytes without padding, so that it can
// be compared and hashed as bytes and stored in shared memory. All bytes zero is the default, the
// unspecified IPv4 address. An IPv4 address never equals an IPv6 one, not even the corresponding
// IPv4-mapped one; all IPv4 addresses order before all IPv6 addresses.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/Export.h"
#include "platform/netz/Hash.h"
#include "platform/netz/SameBytes.h"

namespace Netz {

class VEL_EXPORT IpGenAddr {
  public:
    // Longest text form in bytes, without a terminating zero.
    static constexpr size_t maxText = 45;

    constexpr IpGenAddr() = default;

    // The address whose first octet is the most significant byte of `value`.
    static constexpr IpGenAddr fromV4(uint32_t value) {
        IpGenAddr addr;
        for (size_t i = 0; i < 4; ++i) addr.bytes_[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
        return addr;
    }
    // The address with these octets, in network order.
    static constexpr IpGenAddr fromV4(const std::array<uint8_t, 4>& octets) {
        IpGenAddr addr;
        for (size_t i = 0; i < 4; ++i) addr.bytes_[i] = octets[i];
        return addr;
    }
    static constexpr IpGenAddr fromV6(const std::array<uint8_t, 16>& octets) {
        IpGenAddr addr;
        addr.family_ = Family::v6;
        addr.bytes_ = octets;
        return addr;
    }
    // Accepts what inet_pton(3) accepts: no zone, no prefix length, no blanks, no leading zeros in
    // IPv4 octets. Empty for any other text.
    static std::optional<IpGenAddr> parse(std::string_view text);

    constexpr bool isV4() const { return family_ == Family::v4; }
    constexpr bool isV6() const { return family_ == Family::v6; }
    // Whether this is 0.0.0.0 or ::, which stand for "no address".
    constexpr bool isZero() const { return bytes_ == std::array<uint8_t, 16>{}; }

    // The octets in network order: 4 or 16 of them.
    constexpr const uint8_t* data() const { return bytes_.data(); }
    constexpr size_t size() const { return isV4() ? 4 : 16; }
    constexpr unsigned bits() const { return isV4() ? 32 : 128; }

    // The text form, for IPv6 that of RFC 5952. `write` stores it at `out`, which has room for
    // maxText bytes, without a terminating zero, and returns its end.
    std::string stringValue() const;
    char* write(char* out) const;

    // A hash over the 16 octets of the IPv6 form (IPv4 as ::ffff:a.b.c.d), the same in every
    // process.
    uint64_t mix() const {
        uint64_t words[2];
        std::memcpy(words, bytes_.data(), 16);
        if (isV4()) words[1] = words[0] << 32 | 0xffff0000U, words[0] = 0;
        return hashMix(hashMix(0, words[0]), words[1]);
    }
    uint32_t hash() const { return static_cast<uint32_t>(mix() >> 32); }

    bool operator==(const IpGenAddr& other) const { return sameBytes(*this, other); }
    constexpr auto operator<=>(const IpGenAddr&) const = default;

  private:
    enum class Family : uint32_t { v4, v6 };

    // Members in the order of comparison.
    Family family_ = Family::v4;
    std::array<uint8_t, 16> bytes_{};  // in network order; the last 12 of an IPv4 address are zero
};

static_assert(sizeof(IpGenAddr) == 20 && std::is_trivially_copyable_v<IpGenAddr> &&
              std::has_unique_object_representations_v<IpGenAddr>);

VEL_EXPORT std::ostream& operator<<(std::ostream& out, const IpGenAddr& addr);

}  // namespace Netz

template <>
struct std::hash<Netz::IpGenAddr> {
    size_t operator()(const Netz::IpGenAddr& addr) const { return addr.mix(); }
};

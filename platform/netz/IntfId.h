// The identifier of an interface: its name, stored in place, so that the value is trivially
// copyable and can be stored in shared memory. Linux names have at most 15 bytes (IFNAMSIZ);
// logical interfaces of a router have longer ones. Empty means no interface. The bytes after the
// name are always zero.
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

class VEL_EXPORT IntfId {
  public:
    static constexpr size_t maxLength = 31;

    constexpr IntfId() = default;
    // Throws Vel::RangeError for a name that `parse` refuses.
    explicit IntfId(std::string_view name);
    // Empty for a name that is too long or contains blanks or control characters.
    static std::optional<IntfId> parse(std::string_view name);

    bool empty() const { return name_[0] == 0; }
    std::string_view str() const noexcept {
        return {name_.data(), strnlen(name_.data(), maxLength)};
    }
    std::string stringValue() const { return std::string(str()); }
    // The usual abbreviation: a leading word of more than four letters before a digit is cut to its
    // first two ("Ethernet1/2" gives "Et1/2"); any other name is unchanged.
    std::string shortName() const;

    uint64_t mix() const {
        uint64_t words[4];
        std::memcpy(words, name_.data(), sizeof words);
        return hashMix(hashMix(words[0], words[1]), hashMix(words[2], words[3]));
    }
    uint32_t hash() const { return static_cast<uint32_t>(mix() >> 32); }

    bool operator==(const IntfId& other) const { return sameBytes(*this, other); }
    constexpr auto operator<=>(const IntfId&) const = default;

  private:
    std::array<char, maxLength + 1> name_{};  // zero from the end of the name on
};

static_assert(sizeof(IntfId) == 32 && std::is_trivially_copyable_v<IntfId>);

VEL_EXPORT std::ostream& operator<<(std::ostream& out, const IntfId& intf);

}  // namespace Netz

template <>
struct std::hash<Netz::IntfId> {
    size_t operator()(const Netz::IntfId& intf) const { return intf.mix(); }
};

// The name of a VRF: a string of at most 100 bytes. The constructors refuse a longer one.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Export.h"
#include "platform/netz/Hash.h"

namespace L3 {

class VEL_EXPORT VrfName {
  public:
    static constexpr size_t maxLength = 100;

    VrfName() = default;
    // Each throws Vel::RangeError "VrfName::bytes > VrfName::maxLength not allowed".
    VrfName(std::string name) : name_(std::move(name)) { checkLength(); }
    VrfName(std::string_view name) : VrfName(std::string(name)) {}
    VrfName(const char* name) : VrfName(std::string(name)) {}

    bool empty() const { return name_.empty(); }
    const std::string& str() const noexcept { return name_; }
    const std::string& stringValue() const { return name_; }
    uint32_t hash() const { return Netz::hashBytes(name_); }

    bool operator==(const VrfName& other) const {
        return name_.size() == other.name_.size() &&
               std::memcmp(name_.data(), other.name_.data(), name_.size()) == 0;
    }
    auto operator<=>(const VrfName&) const = default;

  private:
    void checkLength() const {
        if (name_.size() > maxLength) [[unlikely]]
            refuse();
    }
    [[noreturn]] static void refuse();

    std::string name_;  // at most maxLength bytes
};

VEL_EXPORT std::ostream& operator<<(std::ostream& out, const VrfName& name);

}  // namespace L3

template <>
struct std::hash<L3::VrfName> {
    size_t operator()(const L3::VrfName& name) const { return name.hash(); }
};

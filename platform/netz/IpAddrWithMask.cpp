#include "platform/netz/IpAddrWithMask.h"

#include <algorithm>
#include <charconv>
#include <ostream>

namespace Netz {

std::optional<IpAddrWithMask> IpAddrWithMask::parse(std::string_view text) {
    const size_t slash = text.find('/');
    if (slash == text.npos) return std::nullopt;
    const auto addr = IpGenAddr::parse(text.substr(0, slash));
    const std::string_view digits = text.substr(slash + 1);
    uint8_t length = 0;
    const auto [end, error] = std::from_chars(digits.begin(), digits.end(), length);
    if (!addr || error != std::errc{} || end != digits.end() || length > addr->bits()) {
        return std::nullopt;
    }
    if (digits.size() > 1 && digits.front() == '0') return std::nullopt;
    return IpAddrWithMask{*addr, length};
}

bool IpAddrWithMask::contains(const IpGenAddr& address) const {
    if (addr.isV6() != address.isV6()) return false;
    const size_t octets = prefixLength / 8;
    const unsigned bits = prefixLength % 8;
    const uint8_t *ours = addr.data(), *theirs = address.data();
    return std::equal(ours, ours + octets, theirs) &&
           (bits == 0 || (ours[octets] ^ theirs[octets]) >> (8 - bits) == 0);
}

std::string IpAddrWithMask::stringValue() const {
    char text[IpGenAddr::maxText + 4];
    char* end = addr.write(text);
    *end++ = '/';
    return {text, std::to_chars(end, std::end(text), prefixLength).ptr};
}

std::ostream& operator<<(std::ostream& out, const IpAddrWithMask& value) {
    return out << value.stringValue();
}

}  // namespace Netz

#include "platform/netz/IpAddrWithMask.h"

#include <endian.h>

#include <algorithm>
#include <charconv>
#include <cstring>
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
    // In words of 8 octets; an IPv4 address is followed by zeros.
    for (unsigned bits = 0; bits < prefixLength; bits += 64) {
        uint64_t ours, theirs;
        std::memcpy(&ours, addr.data() + bits / 8, sizeof ours);
        std::memcpy(&theirs, address.data() + bits / 8, sizeof theirs);
        const unsigned compared = std::min(prefixLength - bits, 64U);
        if (be64toh(ours ^ theirs) >> (64 - compared) != 0) return false;
    }
    return true;
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

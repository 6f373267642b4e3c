#include "platform/netz/IntfId.h"

#include <algorithm>
#include <ostream>

#include "platform/netz/Error.h"

namespace Netz {
namespace {

// Tests for ASCII blanks and control characters, whatever the locale; bytes of UTF-8 names are
// accepted.
bool isBlankOrControl(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte <= ' ' || byte == 0x7f;
}
bool isLetter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

IntfId::IntfId(std::string_view name) {
    const auto id = parse(name);
    if (!id) {
        throw Vel::RangeError(name.size() > maxLength
                                  ? "IntfId::bytes > IntfId::maxLength not allowed"
                                  : "IntfId: blanks and control characters not allowed");
    }
    *this = *id;
}

std::optional<IntfId> IntfId::parse(std::string_view name) {
    if (name.size() > maxLength || std::any_of(name.begin(), name.end(), isBlankOrControl)) {
        return std::nullopt;
    }
    IntfId id;
    name.copy(id.name_.data(), maxLength);
    return id;
}

std::string IntfId::shortName() const {
    const std::string_view name = str();
    const auto wordEnd = std::find_if_not(name.begin(), name.end(), isLetter);
    if (wordEnd - name.begin() <= 4 || wordEnd == name.end() || !isDigit(*wordEnd)) {
        return std::string(name);
    }
    return std::string(name.substr(0, 2)).append(wordEnd, name.end());
}

std::ostream& operator<<(std::ostream& out, const IntfId& intf) {
    return out << intf.str();
}

}  // namespace Netz

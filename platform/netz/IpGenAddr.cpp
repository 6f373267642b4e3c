#include "platform/netz/IpGenAddr.h"

#include <arpa/inet.h>

#include <charconv>
#include <ostream>

namespace Netz {
namespace {

// Each octet's digits followed by a dot, and the number of characters including the dot.
constexpr auto octetTexts = [] {
    std::array<std::array<char, 5>, 256> texts{};
    for (int octet = 0; octet < 256; ++octet) {
        char* out = texts[octet].data();
        if (octet >= 100) *out++ = static_cast<char>('0' + octet / 100);
        if (octet >= 10) *out++ = static_cast<char>('0' + octet / 10 % 10);
        *out++ = static_cast<char>('0' + octet % 10);
        *out++ = '.';
        texts[octet][4] = static_cast<char>(out - texts[octet].data());
    }
    return texts;
}();

// May write beyond the returned end, within the room that write() requires.
char* writeV4(const uint8_t* octets, char* out) {
    for (int i = 0; i < 4; ++i) {
        const auto& text = octetTexts[octets[i]];
        std::memcpy(out, text.data(), 4);
        out += text[4];
    }
    return out - 1;
}

struct Run {
    int begin = 8;
    int length = 0;
    int end() const { return begin + length; }
};

// The first of the longest runs of two or more zero groups (RFC 5952 section 4.2).
Run zeroRun(const uint16_t (&groups)[8], int count) {
    Run best;
    for (int i = 0; i < count;) {
        Run run{i, 0};
        while (run.end() < count && groups[run.end()] == 0) ++run.length;
        if (run.length > 1 && run.length > best.length) best = run;
        i = run.end() + 1;
    }
    return best;
}

char* writeV6(const uint8_t* octets, char* out) {
    uint16_t groups[8];
    for (int i = 0; i < 8; ++i)
        groups[i] = static_cast<uint16_t>(octets[2 * i] << 8 | octets[2 * i + 1]);
    static constexpr uint8_t mappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    const bool mapped = std::memcmp(octets, mappedPrefix, sizeof mappedPrefix) == 0;
    const int count = mapped ? 6 : 8;
    const Run run = zeroRun(groups, count);
    for (int i = 0; i < count;) {
        if (i == run.begin) {
            *out++ = ':';
            if ((i = run.end()) == count) *out++ = ':';
            continue;
        }
        if (i) *out++ = ':';
        out = std::to_chars(out, out + 4, groups[i++], 16).ptr;
    }
    if (!mapped) return out;
    *out++ = ':';
    return writeV4(octets + 12, out);
}

}  // namespace

std::optional<IpGenAddr> IpGenAddr::parse(std::string_view text) {
    char copy[maxText + 1];
    if (text.size() > maxText || text.find('\0') != text.npos) return std::nullopt;
    copy[text.copy(copy, maxText)] = 0;
    std::array<uint8_t, 16> octets{};
    if (text.find(':') != text.npos) {
        if (inet_pton(AF_INET6, copy, octets.data()) != 1) return std::nullopt;
        return fromV6(octets);
    }
    if (inet_pton(AF_INET, copy, octets.data()) != 1) return std::nullopt;
    return fromV4({octets[0], octets[1], octets[2], octets[3]});
}

char* IpGenAddr::write(char* out) const {
    return isV4() ? writeV4(data(), out) : writeV6(data(), out);
}

std::string IpGenAddr::stringValue() const {
    char text[maxText];
    return {text, write(text)};
}

std::ostream& operator<<(std::ostream& out, const IpGenAddr& addr) {
    char text[IpGenAddr::maxText];
    return out << std::string_view(text, static_cast<size_t>(addr.write(text) - text));
}

}  // namespace Netz

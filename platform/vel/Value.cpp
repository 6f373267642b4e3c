#include "platform/vel/Value.h"

#include <charconv>
#include <cmath>
#include <limits>

namespace Vel {

namespace {

std::string describe(const Datum& d) {
    struct Visitor {
        std::string operator()(std::monostate) const { return "null"; }
        std::string operator()(bool v) const { return v ? "true" : "false"; }
        std::string operator()(U64 v) const { return std::to_string(v); }
        std::string operator()(double v) const { return Codec<double>::key(v); }
        std::string operator()(const String& v) const { return '"' + v.substr(0, 120) + '"'; }
        std::string operator()(const Datum::List&) const { return "an array"; }
        std::string operator()(const Datum::Members&) const { return "an object"; }
        std::string operator()(const Secret&) const { return Secret::hidden; }
    };
    return std::visit(Visitor{}, d.value);
}

// Numbers; all are converted through the widest type of their kind.
template <class T>
struct NumberCodec {
    static std::string range() {
        return "a whole number from 0 to " + std::to_string(std::numeric_limits<T>::max());
    }
    static std::optional<T> read(std::string_view text) {
        T v{};
        auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), v);
        if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
        return v;
    }
    static T fromDatum(const Datum& d) {
        const U64* v = d.as<U64>();
        if (!v || *v > std::numeric_limits<T>::max()) expected(range(), d);
        return static_cast<T>(*v);
    }
};

// The types whose text is a single word and is quoted inside a value text.
template <class T>
std::optional<T> readText(std::string_view text) {
    if constexpr (std::is_same_v<T, String>)
        return T(text);
    else if constexpr (std::is_same_v<T, L3::VrfName>)
        return text.size() > T::maxLength ? std::nullopt : std::optional(T(String(text)));
    else
        return T::parse(text);
}
template <class T>
constexpr const char* textKind = "text";
template <>
constexpr const char* textKind<Netz::IpGenAddr> = "an IPv4 or IPv6 address";
template <>
constexpr const char* textKind<Netz::IpAddrWithMask> = "an address with prefix length";
template <>
constexpr const char* textKind<Netz::IntfId> = "an interface name of at most 31 bytes";

template <>
constexpr const char* textKind<L3::VrfName> = "a VRF name of at most 100 bytes";

template <class T>
std::string plainText(const T& v) {
    if constexpr (std::is_same_v<T, String>)
        return v;
    else
        return v.stringValue();
}

}  // namespace

bool TextReader::take(std::string_view literal) {
    if (!rest_.starts_with(literal)) return false;
    rest_.remove_prefix(literal.size());
    return true;
}

std::string_view TextReader::takeWord() {
    auto isWord = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '.' || c == '-' || c == '+' || c == '_';
    };
    size_t n = 0;
    while (n < rest_.size() && isWord(rest_[n])) ++n;
    std::string_view word = rest_.substr(0, n);
    rest_.remove_prefix(n);
    return word;
}

std::optional<String> TextReader::takeQuoted() {
    if (!take("'")) return std::nullopt;
    String out;
    for (size_t i = 0; i < rest_.size(); ++i) {
        char c = rest_[i];
        if (c == '\'') {
            rest_.remove_prefix(i + 1);
            return out;
        }
        if (c != '\\') {
            out += c;
            continue;
        }
        if (++i == rest_.size()) break;
        switch (rest_[i]) {
            case '\\':
            case '\'':
                out += rest_[i];
                break;
            case 'n':
                out += '\n';
                break;
            case 't':
                out += '\t';
                break;
            case 'r':
                out += '\r';
                break;
            case 'x': {
                unsigned byte = 0;
                if (i + 2 >= rest_.size()) return std::nullopt;
                auto [end, error] =
                    std::from_chars(rest_.data() + i + 1, rest_.data() + i + 3, byte, 16);
                if (error != std::errc{} || end != rest_.data() + i + 3) return std::nullopt;
                out += static_cast<char>(byte);
                i += 2;
                break;
            }
            default:
                return std::nullopt;
        }
    }
    return std::nullopt;
}

void appendQuoted(std::string& out, std::string_view text) {
    out += '\'';
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (c == '\\' || c == '\'') {
            (out += '\\') += c;
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\r') {
            out += "\\r";
        } else if (byte < 0x20 || byte == 0x7F) {
            constexpr char digits[] = "0123456789abcdef";
            ((out += "\\x") += digits[byte >> 4]) += digits[byte & 15];
        } else {
            out += c;
        }
    }
    out += '\'';
}

void appendEscapedKey(std::string& out, std::string_view text) {
    for (char c : text) {
        if (c == ',' || c == ']' || c == '\\') out += '\\';
        out += c;
    }
}

String takeKeyPart(std::string_view& rest) {
    String out;
    size_t i = 0;
    for (; i < rest.size() && rest[i] != ','; ++i) {
        if (rest[i] == '\\' && i + 1 < rest.size()) ++i;
        out += rest[i];
    }
    rest.remove_prefix(i);
    return out;
}

void expected(std::string_view what, const Datum& got) {
    throw Error("expected " + std::string(what) + ", got " + describe(got));
}
void expected(std::string_view what, std::string_view got) {
    throw Error("expected " + std::string(what) + ", got \"" + std::string(got.substr(0, 120)) +
                '"');
}

const Datum& memberOf(const Datum& d, const char* type, const char* member) {
    static const Datum none;
    const auto* members = d.as<Datum::Members>();
    if (!members) expected(std::string("an object of ") + type, d);
    for (const auto& [name, value] : *members)
        if (name == member) return value;
    return none;
}

void onlyMembers(const Datum& d, const char* type, const char* const* names, size_t n) {
    const auto* members = d.as<Datum::Members>();
    if (!members) expected(std::string("an object of ") + type, d);
    for (const auto& [name, value] : *members) {
        bool known = false;
        for (size_t i = 0; i < n; ++i) known = known || name == names[i];
        if (!known) throw Error(std::string(type) + " has no field \"" + name + '"');
    }
}

void Codec<bool>::text(std::string& out, const bool& v) {
    out += v ? "true" : "false";
}
std::optional<bool> Codec<bool>::parse(TextReader& in) {
    std::string_view word = in.takeWord();
    if (word == "true") return true;
    if (word == "false") return false;
    return std::nullopt;
}
Datum Codec<bool>::datum(const bool& v) {
    return {v};
}
bool Codec<bool>::fromDatum(const Datum& d) {
    const bool* v = d.as<bool>();
    if (!v) expected("true or false", d);
    return *v;
}
std::string Codec<bool>::key(const bool& v) {
    return v ? "true" : "false";
}
bool Codec<bool>::fromKey(std::string_view text) {
    if (text != "true" && text != "false") expected("true or false", text);
    return text == "true";
}

void Codec<double>::text(std::string& out, const double& v) {
    out += key(v);
}
std::optional<double> Codec<double>::parse(TextReader& in) {
    return NumberCodec<double>::read(in.takeWord());
}
Datum Codec<double>::datum(const double& v) {
    return {v};
}
double Codec<double>::fromDatum(const Datum& d) {
    if (const U64* v = d.as<U64>()) return static_cast<double>(*v);
    const double* v = d.as<double>();
    if (!v) expected("a number", d);
    return *v;
}
std::string Codec<double>::key(const double& v) {
    char buffer[32];
    auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, v);
    return {buffer, end};
}
double Codec<double>::fromKey(std::string_view text) {
    auto v = NumberCodec<double>::read(text);
    if (!v) expected("a number", text);
    return *v;
}

#define VEL_NUMBER(T)                                    \
    void Codec<T>::text(std::string& out, const T& v) {  \
        out += std::to_string(v);                        \
    }                                                    \
    std::optional<T> Codec<T>::parse(TextReader& in) {   \
        return NumberCodec<T>::read(in.takeWord());      \
    }                                                    \
    Datum Codec<T>::datum(const T& v) {                  \
        return {U64{v}};                                 \
    }                                                    \
    T Codec<T>::fromDatum(const Datum& d) {              \
        return NumberCodec<T>::fromDatum(d);             \
    }                                                    \
    std::string Codec<T>::key(const T& v) {              \
        return std::to_string(v);                        \
    }                                                    \
    T Codec<T>::fromKey(std::string_view text) {         \
        auto v = NumberCodec<T>::read(text);             \
        if (!v) expected(NumberCodec<T>::range(), text); \
        return *v;                                       \
    }
VEL_NUMBER(U8)
VEL_NUMBER(U16)
VEL_NUMBER(U32)
VEL_NUMBER(U64)

#define VEL_TEXT(T)                                          \
    void Codec<T>::text(std::string& out, const T& v) {      \
        appendQuoted(out, plainText(v));                     \
    }                                                        \
    std::optional<T> Codec<T>::parse(TextReader& in) {       \
        auto quoted = in.takeQuoted();                       \
        return quoted ? readText<T>(*quoted) : std::nullopt; \
    }                                                        \
    Datum Codec<T>::datum(const T& v) {                      \
        return {plainText(v)};                               \
    }                                                        \
    T Codec<T>::fromDatum(const Datum& d) {                  \
        const String* s = d.as<String>();                    \
        if (!s) expected(textKind<T>, d);                    \
        return fromKey(*s);                                  \
    }                                                        \
    std::string Codec<T>::key(const T& v) {                  \
        return plainText(v);                                 \
    }                                                        \
    T Codec<T>::fromKey(std::string_view text) {             \
        auto v = readText<T>(text);                          \
        if (!v) expected(textKind<T>, text);                 \
        return *v;                                           \
    }
VEL_TEXT(String)
VEL_TEXT(Netz::IpGenAddr)
VEL_TEXT(Netz::IpAddrWithMask)
VEL_TEXT(Netz::IntfId)
VEL_TEXT(L3::VrfName)

Secret Codec<Secret>::fromDatum(const Datum& d) {
    if (const Secret* secret = d.as<Secret>()) return *secret;
    const String* text = d.as<String>();
    if (!text) throw Error("expected text");
    if (*text == Secret::hidden)
        throw Error("this text replaces a secret in output; write the secret itself");
    return {*text};
}

}  // namespace Vel

// Value types: plain structs with public fields and defaulted comparison. One line,
//
//     VEL_VALUE(Nav, PathKey, srcAddr, dstAddr, vrfId)
//
// after the struct, inside its namespace, gives the type its text form (`valueToStrep`, with a
// parser for it), its stream operator, its hash, and its forms as data and as key. VEL_ENUM does
// the same for an enumeration. Collections and access by name are built on Codec<T>; other types
// take part by specialising it.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "platform/netz/Assert.h"
#include "platform/netz/Error.h"
#include "platform/netz/Hash.h"
#include "platform/netz/IntfId.h"
#include "platform/netz/IpAddrWithMask.h"
#include "platform/netz/IpGenAddr.h"
#include "platform/netz/VrfName.h"
#include "platform/vel/Datum.h"
#include "platform/vel/ForEach.h"

namespace Vel {

// Small values are passed by value, others by reference.
template <class T>
using Param = std::conditional_t<std::is_trivially_copyable_v<T> && sizeof(T) <= 16, T, const T&>;

// Reads a value text from its front. Every take… leaves the rest for the next call.
class VEL_EXPORT TextReader {
  public:
    explicit TextReader(std::string_view text) : rest_(text) {}
    bool take(std::string_view literal);  // false, and nothing taken, if it is not at the front
    std::optional<String> takeQuoted();   // 'text' with \\ \' \n \t \r \xHH
    std::string_view takeWord();          // letters, digits, '.', '-', '+', '_'
    bool atEnd() const { return rest_.empty(); }

  private:
    std::string_view rest_;
};

VEL_EXPORT void appendQuoted(std::string& out, std::string_view text);
VEL_EXPORT void appendEscapedKey(std::string& out,
                                 std::string_view text);  // \ before , ] and backslash
VEL_EXPORT String takeKeyPart(std::string_view& rest);    // up to an unescaped ',', unescaped

// Members of a codec:
//   text(out, v), parse(reader) -> optional   the value text and back
//   datum(v), fromDatum(d)                    as data; Error with the reason if it does not fit
//   key(v), fromKey(text)                     as the text of a key; the same errors
//   mix(v)                                    a 64-bit hash for indexing, cheap
//   hash(v)                                   the 32-bit hash word of a field
//   isText                                    whether its key is free text
template <class T>
struct Codec;

template <class T>
U32 scalarHash(const T& v) {
    if constexpr (std::is_floating_point_v<T>)
        return static_cast<U32>(std::bit_cast<U64>(v == 0 ? 0 : v) >> 32);  // -0 equals 0
    else if constexpr (std::is_arithmetic_v<T>)
        return static_cast<U32>(v);
    else if constexpr (requires { v.hash(); })
        return v.hash();
    else
        return Netz::hashBytes(v);
}
template <class T>
U64 scalarMix(const T& v) {
    if constexpr (std::is_integral_v<T>)
        return Netz::hashMix(0, static_cast<U64>(v));
    else if constexpr (requires { v.mix(); })
        return v.mix();
    else
        return scalarHash(v) * 0x9e3779b97f4a7c15U;
}

// The same over the bytes of a value without padding, two words at a time: folding the 128-bit
// product spreads every bit over the whole result, and the pairs do not depend on one another.
template <class T>
U64 bytesMix(const T& v) {
    __extension__ using U128 = unsigned __int128;
    constexpr size_t n = sizeof(T);
    auto word = [&](size_t at) {  // the eight bytes at `at`; at the end the last eight
        U64 w = 0;
        std::memcpy(&w, reinterpret_cast<const char*>(&v) + (n < 8 ? 0 : std::min(at, n - 8)),
                    std::min<size_t>(n, 8));
        return w;
    };
    U64 mix = 0;
    auto fold = [&](size_t at) {
        const U128 product = static_cast<U128>(word(at) ^ 0x9e3779b97f4a7c15U) *
                             (word(at + 8) ^ 0xd6e8feb86659fd93U);
        mix = std::rotl(mix, 23) ^ static_cast<U64>(product) ^ static_cast<U64>(product >> 64);
    };
    [&]<size_t... i>(std::index_sequence<i...>) {
        (fold(16 * i), ...);
    }
    (std::make_index_sequence<(n + 15) / 16>());
    return mix;
}

#define VEL_SCALAR_CODEC(T, text_)                            \
    template <>                                               \
    struct VEL_EXPORT Codec<T> {                              \
        static constexpr bool isText = text_;                 \
        static void text(std::string& out, const T& v);       \
        static std::optional<T> parse(TextReader& in);        \
        static Datum datum(const T& v);                       \
        static T fromDatum(const Datum& d);                   \
        static std::string key(const T& v);                   \
        static T fromKey(std::string_view text);              \
        static U64 mix(const T& v) { return scalarMix(v); }   \
        static U32 hash(const T& v) { return scalarHash(v); } \
    };

VEL_SCALAR_CODEC(bool, false)
VEL_SCALAR_CODEC(U8, false)
VEL_SCALAR_CODEC(U16, false)
VEL_SCALAR_CODEC(U32, false)
VEL_SCALAR_CODEC(U64, false)
VEL_SCALAR_CODEC(double, false)
VEL_SCALAR_CODEC(String, true)
VEL_SCALAR_CODEC(Netz::IpGenAddr, false)
VEL_SCALAR_CODEC(Netz::IpAddrWithMask, false)
VEL_SCALAR_CODEC(Netz::IntfId, true)
VEL_SCALAR_CODEC(L3::VrfName, true)
#undef VEL_SCALAR_CODEC

// An attribute's value only: a secret is neither a key nor part of a value text. Its errors do not
// repeat what they refuse.
template <>
struct VEL_EXPORT Codec<Secret> {
    static Datum datum(const Secret& v) { return {v}; }
    static Secret fromDatum(const Datum& d);
};

// The one-at-a-time hash over 32-bit words, each taken as four bytes, least significant first
// (Jenkins, Dr. Dobb's Journal, September 1997).
class OneAtATime {
  public:
    constexpr void add(U32 word) {
        for (int i = 0; i < 4; ++i, word >>= 8) {
            h_ += word & 0xFF;
            h_ += h_ << 10;
            h_ ^= h_ >> 6;
        }
    }
    constexpr U32 end() const {
        U32 h = h_;
        h += h << 3;
        h ^= h >> 11;
        h += h << 15;
        return h;
    }

  private:
    U32 h_ = 0;
};

template <class T, class F>
struct Field {
    const char* name;
    F T::*member;
};
template <class T, class F>
constexpr Field<T, F> field(const char* name, F T::*member) {
    return {name, member};
}

template <class T>
concept StructValue = requires(const T* v) {
    velFields(v);
};
template <class T>
concept EnumValue = requires(const T* v) {
    velEnumNames(v);
};

// Calls f(field) for each field of a struct value, in declaration order.
template <class T, class F>
constexpr void eachField(F&& f) {
    std::apply([&](const auto&... fields) { (f(fields), ...); },
               velFields(static_cast<const T*>(nullptr)));
}

VEL_EXPORT const Datum& memberOf(const Datum& d, const char* type, const char* member);
VEL_EXPORT void onlyMembers(const Datum& d, const char* type, const char* const* names, size_t n);
[[noreturn]] VEL_EXPORT void expected(std::string_view what, const Datum& got);
[[noreturn]] VEL_EXPORT void expected(std::string_view what, std::string_view got);

template <class T>
constexpr bool hasFloat() {
    if constexpr (StructValue<T>)
        return std::apply(
            [](const auto&... f) {
                return (hasFloat<std::remove_cvref_t<decltype(std::declval<T>().*f.member)>>() ||
                        ...);
            },
            velFields(static_cast<const T*>(nullptr)));
    else
        return std::is_floating_point_v<T>;
}
// Equality for which a NaN equals a NaN, so that setting one again is no change.
template <class T>
bool sameValue(const T& a, const T& b) {
    if constexpr (std::is_floating_point_v<T>) {
        return a == b || (a != a && b != b);
    } else if constexpr (hasFloat<T>()) {
        bool same = true;
        eachField<T>([&](const auto& f) { same = same && sameValue(a.*f.member, b.*f.member); });
        return same;
    } else {
        return a == b;
    }
}

template <class K, class V>
bool sameValue(const std::pair<K, V>& a, const std::pair<K, V>& b) {
    return a.first == b.first && sameValue(a.second, b.second);
}

template <StructValue T>
struct Codec<T> {
    static constexpr bool isText = false;
    static constexpr const char* name = velTypeName(static_cast<const T*>(nullptr));
    static constexpr size_t count =
        std::tuple_size_v<decltype(velFields(static_cast<const T*>(nullptr)))>;

    template <class M>
    using FieldType = std::remove_cvref_t<decltype(std::declval<T>().*std::declval<M>())>;

    static void text(std::string& out, const T& v) {
        out.append("Value('").append(name).append("', ** {");
        bool first = true;
        eachField<T>([&](const auto& f) {
            out.append(std::exchange(first, false) ? "'" : ", '").append(f.name).append("': ");
            Codec<FieldType<decltype(f.member)>>::text(out, v.*f.member);
        });
        out.append("})");
    }
    static std::optional<T> parse(TextReader& in) {
        T v{};
        bool ok = in.take("Value('") && in.take(name) && in.take("', ** {");
        bool first = true;
        eachField<T>([&](const auto& f) {
            ok = ok && in.take(std::exchange(first, false) ? "'" : ", '") && in.take(f.name) &&
                 in.take("': ");
            if (!ok) return;
            auto part = Codec<FieldType<decltype(f.member)>>::parse(in);
            ok = part.has_value();
            if (ok) v.*f.member = std::move(*part);
        });
        if (!ok || !in.take("})")) return std::nullopt;
        return v;
    }
    static Datum datum(const T& v) {
        Datum::Members members;
        eachField<T>([&](const auto& f) {
            members.push_back({f.name, Codec<FieldType<decltype(f.member)>>::datum(v.*f.member)});
        });
        return {std::move(members)};
    }
    // An object of the fields. An omitted field keeps its default; an unknown field, or a value
    // that does not fit, is refused.
    static T fromDatum(const Datum& d) {
        T v{};
        std::array<const char*, count> names;
        size_t n = 0;
        eachField<T>([&](const auto& f) { names[n++] = f.name; });
        onlyMembers(d, name, names.data(), n);
        eachField<T>([&](const auto& f) {
            const Datum& part = memberOf(d, name, f.name);
            if (part.isNull()) return;
            try {
                v.*f.member = Codec<FieldType<decltype(f.member)>>::fromDatum(part);
            } catch (const Error& e) {
                throw Error(std::string(f.name) + ": " + e.what());
            }
        });
        return v;
    }
    static std::string key(const T& v) {
        std::string out;
        bool first = true;
        eachField<T>([&](const auto& f) {
            using C = Codec<FieldType<decltype(f.member)>>;
            static_assert(!StructValue<FieldType<decltype(f.member)>>,
                          "the fields of a key are scalars");
            if (!std::exchange(first, false)) out += ',';
            if constexpr (C::isText)
                appendEscapedKey(out, C::key(v.*f.member));
            else
                out += C::key(v.*f.member);
        });
        return out;
    }
    static T fromKey(std::string_view text) {
        T v{};
        std::string_view rest = text;
        size_t left = count;
        eachField<T>([&](const auto& f) {
            v.*f.member = Codec<FieldType<decltype(f.member)>>::fromKey(takeKeyPart(rest));
            if (--left == 0 ? !rest.empty() : rest.empty())
                expected(std::string("a key of ") + std::to_string(count) + " fields", text);
            if (!rest.empty()) rest.remove_prefix(1);
        });
        return v;
    }
    static U64 mix(const T& v) {
        if constexpr (std::is_trivially_copyable_v<T> &&
                      std::has_unique_object_representations_v<T>)
            return bytesMix(v);
        U64 state = 0;
        eachField<T>([&](const auto& f) {
            state = Netz::hashMix(state, Codec<FieldType<decltype(f.member)>>::mix(v.*f.member));
        });
        return state;
    }
    static U32 hash(const T& v) {
        OneAtATime h;
        eachField<T>(
            [&](const auto& f) { h.add(Codec<FieldType<decltype(f.member)>>::hash(v.*f.member)); });
        return h.end();
    }
};

template <EnumValue T>
struct Codec<T> {
    static constexpr bool isText = false;
    static constexpr auto names = velEnumNames(static_cast<const T*>(nullptr));

    static const char* name(T v) {
        VEL_ASSERT(static_cast<size_t>(v) < names.size(), "an enumerator without a name");
        return names[static_cast<size_t>(v)];
    }
    static std::optional<T> find(std::string_view name) {
        for (size_t i = 0; i < names.size(); ++i)
            if (name == names[i]) return static_cast<T>(i);
        return std::nullopt;
    }
    static void text(std::string& out, const T& v) { out += name(v); }
    static std::optional<T> parse(TextReader& in) { return find(in.takeWord()); }
    static Datum datum(const T& v) { return {String(name(v))}; }
    static T fromDatum(const Datum& d) {
        const String* s = d.as<String>();
        auto found = s ? find(*s) : std::nullopt;
        if (!found) expected(choice(), d);
        return *found;
    }
    static std::string key(const T& v) { return name(v); }
    static T fromKey(std::string_view text) {
        auto found = find(text);
        if (!found) expected(choice(), text);
        return *found;
    }
    static U64 mix(const T& v) { return Netz::hashMix(0, static_cast<U64>(v)); }
    static U32 hash(const T& v) { return static_cast<U32>(v); }

  private:
    static std::string choice() {
        std::string out = "one of";
        for (const char* n : names) out.append(" ").append(n);
        return out;
    }
};

// The value text of v, and its inverse; Error if the text is not a value text.
template <class T>
std::string valueToStrep(const T& v) {
    std::string out;
    Codec<T>::text(out, v);
    return out;
}
template <class T>
T valueFromStrep(std::string_view text) {
    TextReader in(text);
    auto v = Codec<T>::parse(in);
    if (!v || !in.atEnd()) expected("a value text", text);
    return *std::move(v);
}
template <class T>
U32 hashOf(const T& v) {
    return Codec<T>::hash(v);
}

}  // namespace Vel

#define VEL_FIELD_(Type, name) ::Vel::field(#name, &Type::name)

#define VEL_VALUE(Space, Type, ...)                                                \
    constexpr const char* velTypeName(const Type*) {                               \
        return #Space "::" #Type;                                                  \
    }                                                                              \
    constexpr auto velFields(const Type*) {                                        \
        return std::make_tuple(VEL_FOR_EACH_COMMA(VEL_FIELD_, Type, __VA_ARGS__)); \
    }                                                                              \
    template <class velOnUse = void>                                               \
    std::ostream& operator<<(std::ostream& out, const Type& v) {                   \
        return out << ::Vel::valueToStrep(v);                                      \
    }

#define VEL_NAME_(Type, name) #name

// Used after `enum class Type : Vel::U32 { ... }`; the names in order of their values from 0.
#define VEL_ENUM(Type, ...)                                                                    \
    constexpr auto velEnumNames(const Type*) {                                                 \
        return std::to_array<const char*>({VEL_FOR_EACH_COMMA(VEL_NAME_, Type, __VA_ARGS__)}); \
    }                                                                                          \
    inline const char* stringValue(Type v) {                                                   \
        return ::Vel::Codec<Type>::name(v);                                                    \
    }                                                                                          \
    inline std::ostream& operator<<(std::ostream& out, Type v) {                               \
        return out << stringValue(v);                                                          \
    }

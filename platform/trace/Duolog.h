// The front end of tracing. A call site gives a facility, a level and, in the order of the text,
// phrases (string literals) and values:
//
//     DUOLOG(pathTrace, 7, "Adding pathIndex: ", index, " to site ", siteGroupKey);
//     DUOLOG_ENTRY(pathTrace);        // in a handler, first: the function's name, level 8
//
// The record's text is all of them one after the other, as an ostream would write them; integers of
// one byte are written as numbers. The level is tested first; the values are evaluated only when
// the call site is on. Records are written to the ring (Ringlog.h, which also defines a record's
// time) and, where they are set, to the text sink and the capture. Each record is shown with the
// function that traced it.
//
// How a value is recorded:
//   - trivially copyable values: their bytes are copied. stringValue() or operator<< makes the text
//     when the trace is read, so such a value must not point at anything with a shorter lifetime;
//   - strings, character arrays, and other types whose str() gives a string: up to maxString bytes
//     are copied;
//   - any other value: its text is made at the call, up to maxRendered bytes. If making it throws,
//     the record is dropped and counted.
// An ellipsis replaces what is cut off; a UTF-8 character is never cut in half.
//
// Only the event thread may trace. An argument with a template comma needs parentheses.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/Export.h"
#include "platform/trace/Facility.h"
#include "platform/trace/Ringlog.h"

namespace Duolog {

inline constexpr size_t maxString = 128;
inline constexpr size_t maxRendered = 512;
inline constexpr int entryLevel = 8;

// Sets the function that receives each record when it is made. An empty function switches the text
// sink off. Records that the sink itself makes reach the ring only.
VEL_EXPORT void textSinkIs(std::function<void(const Ringlog::Line&)> sink);
// The same, writing each line to a file descriptor; a negative one switches the text sink off.
VEL_EXPORT void textSinkIs(int fd);

// Appends the bare text of each record (no time, facility, function or place) to `texts` until it
// is called with null. For tests.
VEL_EXPORT void captureIs(std::vector<std::string>* texts);

// Passes the newest record to the text sink and the capture.
VEL_EXPORT void deliver();

namespace Detail {

template <class T>
concept String = std::convertible_to<const T&, std::string_view>;
template <class T>
concept HasStr = requires(const T& value) {
    { value.str() } -> std::convertible_to<std::string_view>;
};
template <class T>
concept HasStringValue = requires(const T& value) {
    { value.stringValue() } -> std::convertible_to<std::string_view>;
};
template <class T>
concept Streamable = requires(std::ostream& out, const T& value) {
    out << value;
};

// Which arguments of a call site are phrases. They are recognised by their spelling, because the
// type of a literal is that of any array of constant characters, which may have a shorter lifetime
// than the record.
struct Spelling {
    size_t count = 0;      // arguments
    uint32_t phrases = 0;  // a bit per argument, the first one lowest
};
constexpr bool isWordCharacter(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
consteval Spelling spellingOf(std::string_view args) {
    Spelling result;
    int depth = 0;
    bool atBegin = true;
    for (size_t i = 0; i < args.size(); ++i) {
        const char c = args[i];
        if (c == ' ') continue;
        if (std::exchange(atBegin, false)) {
            const std::string_view rest = args.substr(i);
            if (c == '"' || rest.starts_with("__func__") || rest.starts_with("__PRETTY_FUNCTION__"))
                result.phrases |= uint32_t{1} << result.count;
            ++result.count;
        }
        if (c == '"' || (c == '\'' && !isWordCharacter(args[i - 1]))) {
            while (args[++i] != c)
                if (args[i] == '\\') ++i;
        } else if (c == '(' || c == '[' || c == '{') {
            ++depth;
        } else if (c == ')' || c == ']' || c == '}') {
            --depth;
        } else if (c == ',' && depth == 0) {
            atBegin = true;
        }
    }
    return result;
}

// A phrase is not copied: the site keeps its address, and the record holds nothing for it.
struct Phrase {
    const char* text;
};

// How arguments are passed to the recorder: phrases and character arrays as such, other values that
// fit into registers by value, the rest by reference.
template <bool isPhrase, class T>
struct PassedAs {
    using Value = std::remove_cv_t<T>;
    using Type = std::conditional_t<std::is_trivially_copyable_v<Value> &&
                                        sizeof(Value) <= 2 * sizeof(void*),
                                    Value, const Value&>;
    static const T& pass(const T& value) { return value; }
};
template <size_t n>
struct PassedAs<true, char[n]> {
    using Type = Phrase;
    static Phrase pass(const char (&text)[n]) { return {text}; }
};
template <size_t n>
struct PassedAs<false, char[n]> {
    using Type = std::string_view;
    static std::string_view pass(const char (&text)[n]) { return {text, strnlen(text, n)}; }
};

template <class T>
void renderValue(const T& value, std::string& out) {
    if constexpr (std::same_as<T, char>) {
        out += value;
    } else if constexpr (std::integral<T>) {
        out += std::to_string(value);
    } else if constexpr (HasStringValue<T>) {
        out += value.stringValue();
    } else if constexpr (HasStr<T>) {
        out += value.str();
    } else if constexpr (Streamable<T>) {
        std::ostringstream stream;
        stream << value;
        out += stream.str();
    } else {
        static_assert(std::is_enum_v<T>, "a traced value needs stringValue() or operator<<");
        renderValue(static_cast<std::underlying_type_t<T>>(value), out);
    }
}

// The encodings in the ring: a text as its full length and the bytes kept of it, a value as its
// bytes, a phrase as nothing. Each gives its largest size at compile time, and says whether
// encoding a value may run code that traces or throws; a str() that is noexcept does neither.
template <size_t bound>
struct Text {
    static constexpr size_t maxSize = sizeof(uint16_t) + bound;

    static uint8_t* put(std::string_view text, uint8_t* out) {
        const auto kept = static_cast<uint16_t>(std::min(text.size(), bound));
        const auto length = static_cast<uint16_t>(std::min(text.size(), bound + 1));
        std::memcpy(out, &length, sizeof length);
        if (kept) std::memcpy(out + sizeof length, text.data(), kept);
        return out + sizeof length + kept;
    }
    static void render(const uint8_t*& in, const char*, std::string& out) {
        uint16_t length;
        std::memcpy(&length, in, sizeof length);
        const size_t kept = std::min<size_t>(length, bound);
        const size_t begin = out.size();
        out.append(reinterpret_cast<const char*>(in + sizeof length), kept);
        if (length > bound) {
            Ringlog::dropCutCharacter(out, begin);
            out += "…";
        }
        in += sizeof length + kept;
    }
};

// The fallback for types without a better encoding: the value's text, made at the call.
template <class T>
struct Piece : Text<maxRendered> {
    static constexpr bool callsOut = true;

    static uint8_t* put(const T& value, uint8_t* out) {
        std::string text;
        renderValue(value, text);
        return Text<maxRendered>::put(text, out);
    }
};
template <class T>
requires(String<T> || (HasStr<T> && !std::is_trivially_copyable_v<T>)) struct Piece<T>
    : Text<maxString> {
    static constexpr bool callsOut = [] {
        if constexpr (HasStr<T>)
            return !noexcept(std::declval<const T&>().str());
        else
            return !noexcept(std::string_view(std::declval<const T&>()));
    }();

    static uint8_t* put(const T& value, uint8_t* out) {
        if constexpr (std::is_pointer_v<T>) {
            return Text<maxString>::put(value ? value : "(null)", out);
        } else if constexpr (String<T>) {
            return Text<maxString>::put(value, out);
        } else {
            return Text<maxString>::put(value.str(), out);
        }
    }
};
template <class T>
requires(!String<T> && std::is_trivially_copyable_v<T>) struct Piece<T> {
    static constexpr bool callsOut = false;
    static constexpr size_t maxSize = sizeof(T);

    static uint8_t* put(const T& value, uint8_t* out) {
        std::memcpy(out, &value, sizeof(T));
        return out + sizeof(T);
    }
    static void render(const uint8_t*& in, const char*, std::string& out) {
        alignas(T) std::byte copy[sizeof(T)];
        std::memcpy(copy, in, sizeof(T));
        in += sizeof(T);
        renderValue(*reinterpret_cast<const T*>(copy), out);
    }
};
template <>
struct Piece<Phrase> {
    static constexpr bool callsOut = false;
    static constexpr size_t maxSize = 0;

    static uint8_t* put(Phrase, uint8_t* out) { return out; }
    static void render(const uint8_t*&, const char* phrase, std::string& out) { out += phrase; }
};
template <class T>
using PieceOf = Piece<std::remove_cvref_t<T>>;

template <class... Args>
void render(const Ringlog::Site& site, const uint8_t* in, std::string& out) {
    size_t index = 0;
    [[maybe_unused]] const auto renderPiece = [&]<class P>(P*) {
        const size_t begin = out.size();
        P::render(in, site.phrases[index++], out);
        Ringlog::escape(out, begin);
    };
    (renderPiece(static_cast<PieceOf<Args>*>(nullptr)), ...);
}

template <class T>
const char* phraseOf([[maybe_unused]] const T& arg) {
    if constexpr (std::is_same_v<T, Phrase>)
        return arg.text;
    else
        return nullptr;
}

// Writes the arguments behind the header of the next record and returns their end, or null if that
// failed. Records that the arguments' own code makes meanwhile are dropped.
template <class... Args>
uint8_t* putAll(const Args&... args) {
    uint8_t* out = Ringlog::recordBegin() + sizeof(Ringlog::Header);
    if constexpr ((PieceOf<Args>::callsOut || ...)) {
        const Ringlog::Busy busy;
        try {
            ((out = PieceOf<Args>::put(args, out)), ...);
        } catch (...) {
            ++Ringlog::state.dropped;
            return nullptr;
        }
    } else {
        ((out = PieceOf<Args>::put(args, out)), ...);
    }
    return out;
}

// Makes the records that need more than copying: the first of a site or of an event, one to be
// dropped, one to be delivered as text.
template <class... Args>
[[gnu::noinline]] void recordWithAttention(Ringlog::Site& site, Args... args) {
    if (!Ringlog::prepare()) return;
    if (!site.render) {
        site.phrases = {phraseOf(args)...};
        site.render = render<Args...>;
    }
    if (const uint8_t* end = putAll<Args...>(args...)) {
        Ringlog::commit(site, Ringlog::recordBegin(), end);
        if (Ringlog::state.attention & Ringlog::delivers) deliver();
    }
}

// Out of line and shared by all sites with these argument types, so that a call site adds no more
// to its handler than a test of the level and a jump.
template <class... Args>
[[gnu::noinline]] void record(Ringlog::Site& site, Args... args) {
    static_assert(sizeof...(Args) <= Ringlog::maxPieces);
    static_assert((sizeof(Ringlog::Header) + ... + PieceOf<Args>::maxSize) <= Ringlog::maxRecord,
                  "too much for one trace record");
    if (Ringlog::state.attention || !site.render) [[unlikely]]
        return recordWithAttention<Args...>(site, args...);
    if (const uint8_t* end = putAll<Args...>(args...))
        Ringlog::commit(site, Ringlog::recordBegin(), end);
}

template <Spelling spelling, class... Args>
void recordPassed(Ringlog::Site& site, const Args&... args) {
    static_assert(spelling.count == sizeof...(Args), "put template commas into parentheses");
    [&]<size_t... i>(std::index_sequence<i...>) {
        record<typename PassedAs<(spelling.phrases >> i & 1) != 0, Args>::Type...>(
            site, PassedAs<(spelling.phrases >> i & 1) != 0, Args>::pass(args)...);
    }
    (std::index_sequence_for<Args...>());
}

}  // namespace Detail
}  // namespace Duolog

#define DUOLOG_RECORD_(facility, siteLevel, ...)                                           \
    static constinit ::Ringlog::Site duologSite{facility, __func__, __FILE__, __LINE__,    \
                                                siteLevel};                                \
    ::Duolog::Detail::recordPassed<::Duolog::Detail::spellingOf(#__VA_ARGS__)>(duologSite, \
                                                                               __VA_ARGS__)

#define DUOLOG(facility, siteLevel, ...)                           \
    do {                                                           \
        if (__builtin_expect((facility).isOn(siteLevel), false)) { \
            DUOLOG_RECORD_(facility, siteLevel, __VA_ARGS__);      \
        }                                                          \
    } while (false)

#define DUOLOG_ENTRY(facility, ...) \
    DUOLOG(facility, ::Duolog::entryLevel, __func__ __VA_OPT__(, ) __VA_ARGS__)

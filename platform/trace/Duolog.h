// The front end of tracing. A call site gives a facility, a level and, in the order of the text,
// phrases (string literals) and values:
//
//     DUOLOG(pathTrace, 7, "Adding pathIndex: ", index, " to site ", siteGroupKey);
//     DUOLOG_ENTRY(pathTrace);        // in a handler, first: the function's name, level 8
//
// The text is all of them, one after the other, as an ostream would have it; small integers are
// numbers. The level is tested first, and the values are evaluated only when the site is on.
// Records go to the ring (Ringlog.h) and, while there is one, to the text sink and the capture.
//
// How a value is recorded:
//   - strings, and whatever has str() giving one: up to maxString bytes are copied;
//   - what TraceArg is specialised for: as what it gives;
//   - trivially copyable values: their bytes, of which stringValue() or operator<< makes the text
//     when the trace is read, so such a value must not point at anything shorter-lived;
//   - anything else: its text, made at the call, up to maxRendered bytes.
// What is cut off shows as an ellipsis.
//
// Stamps: a handler's entry takes the time from level 7 on, and decisions (levels 7 and up) carry
// the newest stamp; sites below level 7 are rare and take their own. One thread, the event thread,
// traces.
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
#include <vector>

#include "platform/Export.h"
#include "platform/trace/Facility.h"
#include "platform/trace/Ringlog.h"

namespace Duolog {

inline constexpr size_t maxString = 128;
inline constexpr size_t maxRendered = 512;
inline constexpr int decisionLevel = 7;
inline constexpr int entryLevel = 8;

// Specialise with `static X of(const T&)` where X is recorded well and has the text of T, e.g. a
// trivially copyable snapshot of a struct that holds strings.
template <class T>
struct TraceArg;

// Receives each line as it comes, without a line end. An empty function switches text off. What a
// sink itself traces reaches the ring only.
VEL_EXPORT void textSinkIs(std::function<void(std::string_view line)> sink);
// The same, onto a file descriptor; a negative one switches text off.
VEL_EXPORT void textSinkIs(int fd);

// Appends the bare text of each record (no time, no facility) while set; null ends it. For tests.
VEL_EXPORT void captureIs(std::vector<std::string>* texts);

// Gives the newest record to sink and capture.
VEL_EXPORT void deliver();

namespace Detail {

template <class T>
concept String = std::convertible_to<const T&, std::string_view>;
template <class T>
concept HasStr = requires(const T& value) {
    { value.str() } -> std::convertible_to<std::string_view>;
};
template <class T>
concept HasTraceArg = requires(const T& value) {
    TraceArg<T>::of(value);
};
template <class T>
concept HasStringValue = requires(const T& value) {
    { value.stringValue() } -> std::convertible_to<std::string_view>;
};
template <class T>
concept Streamable = requires(std::ostream& out, const T& value) {
    out << value;
};

// A phrase is an array of constant characters and stays where it is; only its address is kept.
template <class T>
inline constexpr bool isPhrase = false;
template <size_t n>
inline constexpr bool isPhrase<const char (&)[n]> = true;

// How arguments reach the recorder: what fits into registers by value, else by reference. A buffer
// of characters is a string, not a phrase.
template <class T>
struct PassedAs {
    using Value = std::remove_cv_t<T>;
    using Type = std::conditional_t<std::is_trivially_copyable_v<Value> &&
                                        sizeof(Value) <= 2 * sizeof(void*),
                                    Value, const Value&>;
};
template <size_t n>
struct PassedAs<const char[n]> {
    using Type = const char (&)[n];
};
template <size_t n>
struct PassedAs<char[n]> {
    using Type = const char*;
};

template <class T>
void renderValue(const T& value, std::string& out) {
    if constexpr (std::same_as<T, char>) {
        out += value;
    } else if constexpr (std::integral<T>) {
        out += std::to_string(value);
    } else if constexpr (HasStringValue<T>) {
        out += value.stringValue();
    } else if constexpr (Streamable<T>) {
        std::ostringstream stream;
        stream << value;
        out += stream.str();
    } else {
        static_assert(std::is_enum_v<T>, "a traced value needs stringValue() or operator<<");
        renderValue(static_cast<std::underlying_type_t<T>>(value), out);
    }
}

// The two encodings in the ring: a text as its full length and as much of it as is kept, and the
// bytes of a value. Each has its bound at compile time.
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
    static void render(const uint8_t*& in, std::string& out) {
        uint16_t length;
        std::memcpy(&length, in, sizeof length);
        const size_t kept = std::min<size_t>(length, bound);
        out.append(reinterpret_cast<const char*>(in + sizeof length), kept);
        if (length > bound) out += "…";
        in += sizeof length + kept;
    }
};

template <class T>
struct Bytes {
    static constexpr size_t maxSize = sizeof(T);

    static uint8_t* put(const T& value, uint8_t* out) {
        std::memcpy(out, &value, sizeof(T));
        return out + sizeof(T);
    }
    static void render(const uint8_t*& in, std::string& out) {
        alignas(T) std::byte copy[sizeof(T)];
        std::memcpy(copy, in, sizeof(T));
        renderValue(*reinterpret_cast<const T*>(copy), out);
        in += sizeof(T);
    }
};

// The codec of a value type.
template <class T>
struct Codec : Text<maxRendered> {
    static uint8_t* put(const T& value, uint8_t* out) {
        std::string text;
        renderValue(value, text);
        return Text<maxRendered>::put(text, out);
    }
};
template <HasTraceArg T>
struct Codec<T> : Codec<std::remove_cvref_t<decltype(TraceArg<T>::of(std::declval<const T&>()))>> {
    using Recorded = std::remove_cvref_t<decltype(TraceArg<T>::of(std::declval<const T&>()))>;
    static uint8_t* put(const T& value, uint8_t* out) {
        return Codec<Recorded>::put(TraceArg<T>::of(value), out);
    }
};
template <class T>
requires(!HasTraceArg<T> && (String<T> || HasStr<T>)) struct Codec<T> : Text<maxString> {
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
requires(!HasTraceArg<T> && !String<T> && !HasStr<T> &&
         std::is_trivially_copyable_v<T>) struct Codec<T> : Bytes<T> {
};

// A phrase takes no room in the ring.
template <class T>
struct Piece : Codec<std::remove_cvref_t<T>> {};
template <class T>
requires isPhrase<T>
struct Piece<T> {
    static constexpr size_t maxSize = 0;
    static uint8_t* put(T, uint8_t* out) { return out; }
};

template <class... Args>
void render(const Ringlog::Site& site, const uint8_t* in, std::string& out) {
    [[maybe_unused]] auto renderPiece = [&]<class Arg>(const char* phrase) {
        if constexpr (isPhrase<Arg>) {
            out += phrase;
        } else {
            Piece<Arg>::render(in, out);
        }
    };
    size_t index = 0;
    (renderPiece.template operator()<Args>(site.phrases[index++]), ...);
}

template <class Arg>
const char* phraseOf([[maybe_unused]] const std::remove_reference_t<Arg>& arg) {
    if constexpr (isPhrase<Arg>) {
        return arg;
    } else {
        return nullptr;
    }
}

// Out of line and the same for all sites with these argument types, so that a call site costs its
// handler no more than the level's test and a jump.
template <class... Args>
[[gnu::noinline]] void record(Ringlog::Site& site, Args... args) {
    static_assert(sizeof...(Args) <= Ringlog::maxPieces);
    static_assert((sizeof(Ringlog::Header) + ... + Piece<Args>::maxSize) <= Ringlog::maxRecord,
                  "too much for one trace record");
    if (!site.render) [[unlikely]] {
        site.render = render<Args...>;
        site.phrases = {phraseOf<Args>(args)...};
    }
    uint8_t* const at = Ringlog::recordBegin();
    uint8_t* end = at + sizeof(Ringlog::Header);
    ((end = Piece<Args>::put(args, end)), ...);
    Ringlog::commit(site, at, end);
    if (Ringlog::state.delivers) [[unlikely]]
        deliver();
}

inline void stamp() {
    Ringlog::state.stamp = Ringlog::ticks();
}

template <class... Args>
void recordPassed(Ringlog::Site& site, Args&&... args) {
    record<typename PassedAs<std::remove_reference_t<Args>>::Type...>(site, args...);
}

}  // namespace Detail
}  // namespace Duolog

#define DUOLOG_RECORD_(facility, siteLevel, ...)                                          \
    static constinit ::Ringlog::Site duologSite{facility, __FILE__, __LINE__, siteLevel}; \
    ::Duolog::Detail::recordPassed(duologSite, __VA_ARGS__)

#define DUOLOG(facility, siteLevel, ...)                                                    \
    do {                                                                                    \
        if (__builtin_expect((facility).isOn(siteLevel), false)) {                          \
            if constexpr ((siteLevel) < ::Duolog::decisionLevel) ::Duolog::Detail::stamp(); \
            DUOLOG_RECORD_(facility, siteLevel, __VA_ARGS__);                               \
        }                                                                                   \
    } while (false)

#define DUOLOG_ENTRY(facility, ...)                                              \
    do {                                                                         \
        if (__builtin_expect((facility).isOn(::Duolog::decisionLevel), false)) { \
            ::Duolog::Detail::stamp();                                           \
            if ((facility).isOn(::Duolog::entryLevel)) {                         \
                DUOLOG_RECORD_(facility, ::Duolog::entryLevel,                   \
                               __func__ __VA_OPT__(, ) __VA_ARGS__);             \
            }                                                                    \
        }                                                                        \
    } while (false)

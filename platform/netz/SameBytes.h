// Equality of small values that are equal exactly if their bytes are. They are compared in blocks
// of a register's size, without a branch and without a call to memcmp, because comparison is the
// most frequent operation on keys.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Netz {

template <class T>
inline constexpr bool equalAsBytes =
    std::has_unique_object_representations_v<T>&& std::is_trivially_copyable_v<T>;

template <class T>
requires equalAsBytes<T>
[[gnu::always_inline]] inline bool sameBytes(const T& a, const T& b) {
    using Block [[gnu::vector_size(16)]] = uint64_t;
    if constexpr (sizeof(T) < sizeof(Block)) {
        return std::memcmp(&a, &b, sizeof(T)) == 0;
    } else {
        constexpr size_t last = sizeof(T) - sizeof(Block);  // may overlap the previous block
        const auto differenceAt = [&](size_t at) {
            Block x, y;
            std::memcpy(&x, reinterpret_cast<const std::byte*>(&a) + at, sizeof x);
            std::memcpy(&y, reinterpret_cast<const std::byte*>(&b) + at, sizeof y);
            return x ^ y;
        };
        Block difference = differenceAt(last);
        for (size_t at = 0; at < last; at += sizeof(Block)) difference |= differenceAt(at);
        return (difference[0] | difference[1]) == 0;
    }
}

}  // namespace Netz

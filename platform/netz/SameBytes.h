// Equality of small values that are equal when their bytes are: word by word, without a branch and
// without the call that memcmp becomes beyond a register's size. Keys are compared more often than
// anything else is done with them.
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
bool sameBytes(const T& a, const T& b) {
    const auto* left = reinterpret_cast<const std::byte*>(&a);
    const auto* right = reinterpret_cast<const std::byte*>(&b);
    uint64_t difference = 0;
    size_t at = 0;
    const auto compare = [&]<class Word>(Word x, Word y) {
        std::memcpy(&x, left + at, sizeof x);
        std::memcpy(&y, right + at, sizeof y);
        difference |= x ^ y;
        at += sizeof x;
    };
    while (sizeof(T) - at >= 8) compare(uint64_t{}, uint64_t{});
    if constexpr (sizeof(T) % 8 >= 4) compare(uint32_t{}, uint32_t{});
    while (at < sizeof(T)) compare(uint8_t{}, uint8_t{});
    return difference == 0;
}

}  // namespace Netz

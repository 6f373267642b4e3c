// The hash of addresses and names. It depends only on the value's bytes, so another process can
// search a table in shared memory with it. It does not resist deliberately colliding keys.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace Netz {

static_assert(std::endian::native == std::endian::little, "words are hashed as loaded");

// Folds one word into a running hash. Each bit of both inputs affects the upper half of the result.
constexpr uint64_t hashMix(uint64_t state, uint64_t word) {
    uint64_t x = (state ^ word) * 0x9e3779b97f4a7c15U;
    x = (x ^ (x >> 32)) * 0xd6e8feb86659fd93U;
    return x ^ (x >> 32);
}

inline uint32_t hashBytes(std::string_view bytes) {
    uint64_t state = bytes.size();
    for (; bytes.size() > 8; bytes.remove_prefix(8)) {
        uint64_t word;
        std::memcpy(&word, bytes.data(), 8);
        state = hashMix(state, word);
    }
    uint64_t tail = 0;
    if (!bytes.empty()) std::memcpy(&tail, bytes.data(), bytes.size());
    return static_cast<uint32_t>(hashMix(state, tail) >> 32);
}

}  // namespace Netz

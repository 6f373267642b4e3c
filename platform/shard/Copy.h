// Copies between private memory and a segment while a writer and readers race. A copy may be torn;
// the caller detects that by a use counter and discards the copy. The copies guarantee order only:
// everything copyOut reads is read before whatever the caller loads next (each word is an acquire
// load, or an acquire fence follows), and everything copyIn writes is written after whatever the
// caller stored before (each word is a release store, or a release fence precedes).
//
// Up to a few words the copies use atomic words. Longer ones are memcpy between fences, as proposed
// for C++ in P1478 (byte-wise atomic memcpy): formally a data race, in practice the same loads, and
// two to four times as fast. Under the thread sanitizer all copies use atomic words.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SANITIZE_THREAD__)
#define SHARD_ATOMIC_WORDS_ONLY 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SHARD_ATOMIC_WORDS_ONLY 1
#endif
#endif

namespace Shard {

constexpr size_t longCopy = 32;

inline uint64_t loadWord(const uint64_t* word) {
    return std::atomic_ref<uint64_t>(*const_cast<uint64_t*>(word)).load(std::memory_order_acquire);
}
inline void storeWord(uint64_t* word, uint64_t value) {
    std::atomic_ref<uint64_t>(*word).store(value, std::memory_order_release);
}

inline void copyOut(void* to, const uint64_t* from, size_t bytes) {
#ifndef SHARD_ATOMIC_WORDS_ONLY
    if (bytes >= longCopy) {
        std::memcpy(to, from, bytes);
        std::atomic_thread_fence(std::memory_order_acquire);
        return;
    }
#endif
    auto* out = static_cast<unsigned char*>(to);
    for (; bytes >= 8; bytes -= 8, out += 8, ++from) {
        const uint64_t word = loadWord(from);
        std::memcpy(out, &word, 8);
    }
    if (bytes == 0) return;
    const uint64_t word = loadWord(from);
    std::memcpy(out, &word, bytes);
}

inline void copyIn(uint64_t* to, const void* from, size_t bytes) {
#ifndef SHARD_ATOMIC_WORDS_ONLY
    if (bytes >= longCopy) {
        std::atomic_thread_fence(std::memory_order_release);
        std::memcpy(to, from, bytes);
        return;
    }
#endif
    const auto* in = static_cast<const unsigned char*>(from);
    for (; bytes >= 8; bytes -= 8, in += 8, ++to) {
        uint64_t word;
        std::memcpy(&word, in, 8);
        storeWord(to, word);
    }
    if (bytes == 0) return;
    uint64_t word = 0;
    std::memcpy(&word, in, bytes);
    storeWord(to, word);
}

}  // namespace Shard

#include "bench/Allocations.h"

#include <cstdlib>
#include <new>

namespace {
Bench::U64 count = 0;
}

Bench::U64 Bench::allocations() {
    return count;
}

void* operator new(std::size_t bytes) {
    ++count;
    if (void* memory = std::malloc(bytes ? bytes : 1)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

// What a router's state occupies, by kind of object: nav-memory prints the table of
// docs/performance.md. Each row is the slope between two sizes that differ in this kind alone, of
// all bytes that the process has allocated; the configuration and the services' inputs count as
// well, and the benchmark's own copies of the vias.
#include <malloc.h>

#include <cstdio>
#include <memory>

#include "bench/FullSize.h"

namespace {

using Bench::Size;

size_t allocated() {
    const auto info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

double bytesOf(const Size& size) {
    const size_t before = allocated();
    const auto router = std::make_unique<Bench::FullRouter>(size);
    return static_cast<double>(allocated() - before);
}

void row(const char* kind, const Size& small, const Size& large, double count) {
    std::printf("| %s | %.0f |\n", kind, (bytesOf(large) - bytesOf(small)) / count);
}

}  // namespace

int main() {
    bytesOf({});  // what is allocated once in a process
    const Size full;
    std::printf("| kind | bytes |\n| --- | --- |\n");
    row("a path", {.sites = 8, .spares = 0}, {.sites = 8, .spares = 16}, 4 * 16);
    row("a load-balance key with four members", {.sites = 8, .apps = 11}, {.sites = 8, .apps = 22},
        8 * 11 * 3);
    row("a rule that shares the keys of its application, in three VRFs",
        {.sites = 8, .rulesPerApp = 1}, {.sites = 8, .rulesPerApp = 17}, 16 * 11);
    row("a site with four paths and 33 keys", {.sites = 15}, {.sites = 31}, 16);
    std::printf("| the whole router: %u paths, %u keys | %.0f |\n", full.paths(), full.keys(),
                bytesOf(full));
}

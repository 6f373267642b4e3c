// Runs a fuzz target over files and the files of directories, without a fuzzer: each unchanged,
// truncated, and with bytes changed. Each input ends at a page without access.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

#ifndef NAV_VARIANTS
constexpr int NAV_VARIANTS = 2000;
#endif
using Bytes = std::vector<uint8_t>;

void runAtPageEnd(const Bytes& bytes) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t room = (bytes.size() + page - 1) / page * page;
    auto* const begin = static_cast<uint8_t*>(
        mmap(nullptr, room + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(begin + room, page, PROT_NONE);
    uint8_t* const data = begin + room - bytes.size();
    std::copy(bytes.begin(), bytes.end(), data);
    alarm(60);  // an input that hangs ends the run
    LLVMFuzzerTestOneInput(data, bytes.size());
    munmap(begin, room + page);
}

Bytes variant(Bytes bytes, std::mt19937& random) {
    const uint64_t edges[] = {0, 1, 63, 64, 127, 0x7fffffff, 0xffffffff, 1ULL << 63, ~0ULL};
    if (random() % 4 == 0) bytes.resize(random() % (bytes.size() + 1));
    for (size_t i = random() % 4; i > 0 && bytes.size() >= 8; --i) {
        const uint64_t word = random() % 2 ? random() : edges[random() % std::size(edges)];
        const size_t at = random() % (bytes.size() - 7);
        std::memcpy(&bytes[at], &word, 1 + random() % 8);
    }
    return bytes;
}

void replay(const std::filesystem::path& file) {
    std::cout << file << std::endl;
    std::ifstream in(file, std::ios::binary);
    const Bytes bytes(std::istreambuf_iterator<char>(in), {});
    std::mt19937 random(20240611);
    runAtPageEnd(bytes);
    for (int i = 0; i < NAV_VARIANTS; ++i) runAtPageEnd(variant(bytes, random));
}

}  // namespace

int main(int argc, char** argv) {
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i])) {
            replay(argv[i]), ++count;
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
            replay(entry.path()), ++count;
    }
    std::cout << count << " inputs" << std::endl;
    return count == 0;
}

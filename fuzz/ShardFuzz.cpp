// Shared maps: a segment of arbitrary bytes is read without harm, and the next writer either takes
// it over completely or replaces it; in both cases the map then works. Seeds are segments that a
// writer made: NAV_SEEDS names a directory that gets those of the first input.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>

#include "platform/netz/Assert.h"
#include "platform/shard/Map.h"
#include "tests/TempDir.h"

namespace {

using namespace Shard;

constexpr uint32_t capacity = 4;
using Value = std::array<uint64_t, 3>;

// The most that a damaged map may contain: one entry per slot and one change per record.
constexpr uint32_t most = 4096;

template <class Map, class Value>
void readAndTakeOver(const Namespace& space, const Value& value, uint64_t listBytes) {
    static typename Map::Reader reader(space, "map");  // stays, as the kernel's watches are slow
    reader.update();
    Value got;
    for (uint32_t key = 0; key < 2 * capacity; ++key) reader.find(key, got);
    uint32_t seen = 0;
    reader.forEach([&](uint32_t, const Value&) { ++seen; });
    reader.changes([&](uint32_t) { ++seen; });
    reader.changes([&](uint32_t) { ++seen; });
    VEL_ASSERT(seen < most, "more was found than there can be");

    typename Map::Writer writer(space, "map", capacity, listBytes);
    for (uint32_t key = 0; key < 2 * capacity; ++key) writer.valueDel(key);
    writer.clear();
    for (uint32_t key = 0; key < capacity; ++key) writer.valueIs(key, value);
    VEL_ASSERT(writer.commit(), "a segment just taken over is damaged");
    if (const char* seeds = std::getenv("NAV_SEEDS"))
        std::filesystem::copy_file(space.fileOf("map"),
                                   seeds + std::string(listBytes ? "/lists" : "/plain"),
                                   std::filesystem::copy_options::skip_existing);
    reader.update();
    for (uint32_t key = 0; key < capacity; ++key)
        VEL_ASSERT(reader.find(key, got) == Lookup::found && got == value,
                   "the next writer's value is not found");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const TempDir run;
    static const Namespace space(run.path);
    const std::string name = space.fileOf("map");
    const auto putBytes = [&] {
        unlink(name.c_str());
        const Descriptor fd(open(name.c_str(), O_RDWR | O_CREAT, S_IRUSR | S_IWUSR));
        VEL_ASSERT(write(fd.get(), data, size) == static_cast<ssize_t>(size), "no shared memory");
    };
    putBytes();
    readAndTakeOver<Map<uint32_t, Value>>(space, Value{1, 2, 3}, 0);
    putBytes();
    readAndTakeOver<ListMap<uint32_t, Value, 4>>(space, std::vector<Value>{{1, 2, 3}, {4, 5, 6}},
                                                 1024);
    unlink(name.c_str());
    return 0;
}

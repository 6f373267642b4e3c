// What the tests of shared maps have in common: values that show whether they are whole, and what
// another process of the same user may do to a segment.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "platform/netz/Assert.h"
#include "platform/netz/Error.h"
#include "platform/shard/Map.h"
#include "tests/TempDir.h"

namespace Shard {

using Random = std::mt19937_64;
inline uint64_t below(Random& random, uint64_t bound) {
    return random() % bound;
}

// Every word follows from key and version.
template <size_t words>
struct Checked {
    uint64_t word[words];

    static Checked of(uint64_t key, uint64_t version) {
        Checked value;
        value.word[0] = version;
        for (size_t i = 1; i < words; ++i) value.word[i] = (version + i) * 0x9e3779b97f4a7c15 ^ key;
        return value;
    }
    static Checked any(Random& random) {
        const uint64_t key = random();
        return of(key, random());
    }
    bool operator==(const Checked&) const = default;
};
using Record = Checked<6>;

// Both kinds of map. The length of a list follows from its version too.
template <size_t words>
struct PlainKind : Map<uint32_t, Checked<words>> {
    using Value = Checked<words>;
    static constexpr uint64_t bytes = 0;
    static Value value(uint32_t key, uint64_t version) { return Value::of(key, version); }
    static uint64_t version(const Value& value) { return value.word[0]; }
};
template <uint32_t longest>
struct ListKind : ListMap<uint32_t, Record, longest> {
    using Value = std::vector<Record>;
    static constexpr uint64_t bytes = longest * sizeof(Record);  // of a list at most
    static Value value(uint32_t key, uint64_t version) {
        Value list(1 + (version * 0x2545f4914f6cdd1d >> 40) % longest);
        for (size_t i = 0; i < list.size(); ++i) list[i] = Record::of(key + i, version);
        return list;
    }
    static uint64_t version(const Value& value) { return value.empty() ? 0 : value[0].word[0]; }
};

struct Vandal {
    static constexpr uint64_t squats = 5, attacks = 12;

    // An orderly stop between these two leaves what a writer's death would leave.
    void keepName() const { VEL_ASSERT(link(file.c_str(), kept.c_str()) == 0, "link"); }
    void restoreName() const { std::filesystem::rename(kept, file); }

    void put(uint64_t at, uint64_t word) const {
        VEL_ASSERT(pwrite(open(0).get(), &word, 8, static_cast<off_t>(at)) == 8, "pwrite");
    }
    void cut(off_t bytes) const { VEL_ASSERT(truncate(file.c_str(), bytes) == 0, "truncate"); }
    // Something that is no segment takes the name.
    void squat(uint64_t kind) const {
        std::filesystem::remove_all(file);
        const int done = kind == 0   ? mkfifo(file.c_str(), 0600)
                         : kind == 1 ? symlink("/dev/tty", file.c_str())
                         : kind == 2 ? mkdir(file.c_str(), 0700)
                                     : fchmod(open(O_CREAT).get(), kind == 3 ? 0622 : 0600);
        VEL_ASSERT(done == 0, "a name taken");
    }
    // Returns whether the content is lost; else one word of the index is another one.
    bool attack(Random& random) const {
        const uint64_t kind = below(random, attacks), at = below(random, 256);
        uint64_t index[256];
        VEL_ASSERT(pread(open(0).get(), index, sizeof index, sizeof(Header)) == sizeof index, "");
        const uint64_t damaged[] = {0, ~index[at], index[at] ^ 1, random(), index[random() % 256]};
        const uint64_t chosen = damaged[below(random, 5)];
        if (kind < squats) return squat(kind), true;
        if (kind == squats) return std::filesystem::remove(file);
        if (kind < 8) return cut(static_cast<off_t>(at * 8)), true;
        if (kind == 8) return put(offsetof(Header, identity.geometry), random()), true;
        put(sizeof(Header) + at * 8, chosen == index[at] ? ~chosen : chosen);
        return false;
    }
    Descriptor open(int flags) const {
        return Descriptor(::open(file.c_str(), O_RDWR | flags, 0600));
    }

    std::string file, kept = file + ".kept";
};

}  // namespace Shard

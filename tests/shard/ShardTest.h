// What the tests of shared maps have in common: a run directory of their own, child processes, and
// values that know whether they are whole.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "platform/netz/Error.h"
#include "platform/shard/Map.h"
#include "tests/TempDir.h"

namespace Shard {

struct RunDirectory : TempDir {
    // The shared-memory names of this directory's agent.
    std::vector<std::string> names() const {
        std::vector<std::string> found;
        const std::string prefix = space.segmentName("x").substr(1, 22);
        for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
            const std::string name = entry.path().filename();
            if (name.starts_with(prefix)) found.push_back(name);
        }
        return found;
    }

    Namespace space{path};
};

using Random = std::mt19937_64;
inline Random seeded(uint64_t seed) {
    std::cout << "seed " << seed << std::endl;
    return Random(seed);
}
inline uint64_t below(Random& random, uint64_t bound) {
    return random() % bound;
}

inline auto deadline(int seconds) {
    return std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
}
inline bool passed(std::chrono::steady_clock::time_point time) {
    return std::chrono::steady_clock::now() > time;
}

// Memory that children share with their parent.
template <class T>
T& shared() {
    void* memory =
        mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *new (memory) T{};
}

class Child {
  public:
    template <class Body>
    explicit Child(Body&& body) : pid_(fork()) {
        if (pid_ != 0) return;
        int code = 99;
        try {
            code = body();
        } catch (const std::exception& error) {
            std::cerr << "child: " << error.what() << std::endl;
        }
        _exit(code);
    }
    ~Child() { kill(); }
    // What it returned, or minus the signal that ended it.
    int wait() {
        int status = 0;
        waitpid(std::exchange(pid_, 0), &status, 0);
        return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
    }
    pid_t pid() const { return pid_; }
    void kill() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        wait();
    }

  private:
    pid_t pid_;
};

// Every word follows from key and version, so that a torn or misplaced value shows.
template <size_t words>
struct Checked {
    uint64_t word[words];

    static Checked of(uint64_t key, uint64_t version) {
        Checked value;
        value.word[0] = version;
        for (size_t i = 1; i < words; ++i) value.word[i] = (version + i) * 0x9e3779b97f4a7c15 ^ key;
        return value;
    }
    uint64_t version() const { return word[0]; }
    bool whole(uint64_t key) const { return *this == of(key, word[0]); }
    bool operator==(const Checked&) const = default;
};

// Does the same for lists: the length follows from the version too.
using Record = Checked<6>;  // as large as a forwarding via
inline std::vector<Record> checkedList(uint64_t key, uint64_t version, uint32_t longest) {
    std::vector<Record> list(1 + (version * 0x2545f4914f6cdd1d >> 40) % longest);
    for (size_t i = 0; i < list.size(); ++i) list[i] = Record::of(key + i, version);
    return list;
}

// Both kinds of map, as tests of either need them.
template <size_t words>
struct PlainKind {
    using Value = Checked<words>;
    using Table = Map<uint32_t, Value>;
    static auto writer(const Namespace& space, uint32_t keys) {
        return std::make_unique<typename Table::Writer>(space, "map", keys);
    }
    static Value value(uint32_t key, uint64_t version) { return Value::of(key, version); }
    static uint64_t version(const Value& value) { return value.version(); }
};
template <uint32_t longest>
struct ListKind {
    using Value = std::vector<Record>;
    using Table = ListMap<uint32_t, Record, longest>;
    static auto writer(const Namespace& space, uint32_t keys) {
        return std::make_unique<typename Table::Writer>(space, "map", keys,
                                                        keys * longest * sizeof(Record));
    }
    static Value value(uint32_t key, uint64_t version) {
        return checkedList(key, version, longest);
    }
    static uint64_t version(const Value& value) { return value.empty() ? 0 : value[0].version(); }
};

}  // namespace Shard

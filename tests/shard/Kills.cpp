// A writer killed at a random moment, again and again, beside readers in processes of their own: no
// reader sees a torn or an older value or misses a key that is always present, and each next writer
// finds every value that was put. Before that, the same with readers in threads and no kills.
//
//     shard_kills [KILLS [WRITER [READER]]]
//
// WRITER and READER are shell commands that run this program, perhaps as built for another
// processor; unless given, this program itself, whatever its path contains.
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <iostream>
#include <thread>

#include "tests/shard/ShardTest.h"

namespace {

using namespace Shard;
using namespace std::chrono_literals;

constexpr uint32_t keys = 48, steady = 16;  // the first keys stay, the others come and go
constexpr uint64_t gone = 0;                // the version of a key that is not there

void require(bool holds, const char* what) {
    if (!holds) throw Vel::Error(what);
}

// What the writers have done and are about to do, in a file that outlives them.
struct Journal {
    std::atomic<uint64_t> done[keys], key, next, lives, progress, reads, stop;

    static Journal& in(const std::string& directory) {
        const Descriptor fd(open((directory + "/journal").c_str(), O_RDWR | O_CREAT, 0600));
        require(ftruncate(fd.get(), sizeof(Journal)) == 0, "no journal");
        void* at = mmap(nullptr, sizeof(Journal), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
        require(at != MAP_FAILED, "no journal");
        return *static_cast<Journal*>(at);
    }
};

template <class Kind>
void work(typename Kind::Writer& writer, Journal& journal, uint64_t steps) {
    const uint64_t life = ++journal.lives;
    Random random(life);
    for (uint64_t version = life << 32, step = 0; step < steps; ++step, ++journal.progress) {
        const auto key = static_cast<uint32_t>(step < steady ? step : below(random, keys));
        journal.next = key < steady || below(random, 3) ? ++version : gone;
        journal.key = key;
        if (journal.next == gone) {
            writer.valueDel(key);
        } else {
            writer.valueIs(key, Kind::value(key, version));
        }
        journal.done[key] = journal.next.load();
        if (step == steady) writer.mountComplete();
        require(below(random, 8) || writer.commit(), "a sound segment replaced");
    }
}

template <class Kind>
void write(const std::string& directory) {
    Journal& journal = Journal::in(directory);
    typename Kind::Writer writer(Namespace(directory), "map", keys, keys * Kind::bytes);
    typename Kind::Value value;
    for (uint32_t key = 0; key < keys; ++key) {
        const uint64_t found = writer.find(key, value) ? Kind::version(value) : gone;
        require(found == gone || value == Kind::value(key, found), "a torn value taken over");
        require(found == journal.done[key] || (key == journal.key && found == journal.next),
                "a value lost by a writer's death");
        journal.done[key] = found;
    }
    work<Kind>(writer, journal, UINT64_MAX);
}

template <class Kind>
void follow(typename Kind::Reader& reader, Journal& journal) {
    typename Kind::Value value;
    uint64_t newest[keys] = {};
    const auto check = [&](uint32_t key, const auto& value) {
        const uint64_t version = Kind::version(value);
        require(value == Kind::value(key, version), "a torn value");
        require(std::exchange(newest[key], version) <= version, "an older value");
    };
    while (reader.update() != MapState::mounted) std::this_thread::yield();
    Random random(static_cast<uint64_t>(getpid()));
    while (!journal.stop) {
        const auto key = static_cast<uint32_t>(below(random, keys));
        const Lookup result = reader.find(key, value);
        if (result == Lookup::found) check(key, value);
        require(result != Lookup::absent || key >= steady, "a key missed that is always present");
        if (++journal.reads % 64) continue;
        reader.update();
        reader.changes([](uint32_t changed) { require(changed < keys, "a change of no key"); });
        reader.forEach(check);
        require(reader.corruptions() == 0, "corruption");
    }
}

template <class Kind>
void read(const std::string& directory) {
    typename Kind::Reader reader(Namespace(directory), "map");
    follow<Kind>(reader, Journal::in(directory));
}

// Readers of the writer's own mapping, where the thread sanitizer sees both sides.
template <class Kind>
void race() {
    const TempDir run;
    Journal& journal = Journal::in(run.path);
    typename Kind::Writer writer(Namespace(run.path), "map", keys, keys * Kind::bytes);
    const auto reading = [&] {
        typename Kind::Reader reader(writer);
        follow<Kind>(reader, journal);
    };
    const std::jthread one(reading), two(reading);
    struct Stop {
        Journal& journal;
        ~Stop() { journal.stop = 1; }
    } const stop{journal};  // also when the writer fails
    work<Kind>(writer, journal, 50000);
}

pid_t start(const std::string& command, const char* role, const std::string& directory) {
    const std::string line = "exec " + command + " \"$0\" \"$1\"";
    const char* arguments[] = {"sh", "-c", line.c_str(), role, directory.c_str(), nullptr};
    pid_t pid = 0;
    require(
        posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(arguments), environ) == 0,
        "cannot start a process");
    return pid;
}

void drive(char kind, int kills, const std::string& writer, const std::string& reader) {
    const TempDir run;
    Journal& journal = Journal::in(run.path);
    const char write[] = {'w', kind, 0}, read[] = {'r', kind, 0};
    const pid_t readers[] = {start(reader, read, run.path), start(reader, read, run.path)};
    const auto alive = [](pid_t pid) { return waitpid(pid, nullptr, WNOHANG) == 0; };
    Random random(31337);
    for (int life = 0; life < kills; ++life) {
        journal.progress = 0;
        const pid_t pid = start(writer, write, run.path);
        const uint64_t enough = 1 + steady + below(random, 1 << below(random, 10));
        for (const auto end = std::chrono::steady_clock::now() + 60s; journal.progress < enough;) {
            require(std::chrono::steady_clock::now() < end && alive(pid), "a writer failed");
            std::this_thread::yield();
        }
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        require(alive(readers[0]) && alive(readers[1]), "a reader failed");
    }
    journal.stop = 1;
    for (const pid_t pid : readers) {
        int status = 0;
        require(waitpid(pid, &status, 0) == pid && status == 0, "a reader failed");
    }
    std::cout << (kind == 'p' ? "values: " : "lists: ") << kills << " kills, " << journal.reads
              << " reads" << std::endl;
}

}  // namespace

int main(int argc, char** argv) try {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::string first = argc > 1 ? argv[1] : "100";
    if (first == "wp") write<PlainKind<300>>(argv[2]);
    if (first == "wl") write<ListKind<40>>(argv[2]);
    if (first == "rp") return read<PlainKind<300>>(argv[2]), 0;
    if (first == "rl") return read<ListKind<40>>(argv[2]), 0;
    race<PlainKind<3>>(), race<PlainKind<300>>(), race<ListKind<40>>();
    const std::string self = "/proc/$PPID/exe";
    for (const char kind : {'p', 'l'})
        drive(kind, std::stoi(first) / 2, argc > 2 ? argv[2] : self, argc > 3 ? argv[3] : self);
    return 0;
} catch (const std::exception& error) {
    std::cout << "[  FAILED  ] Kills.LoseNothing: " << error.what() << std::endl;
    return 1;
}

// Who may write and who may read, what wakes a reader, and what nobody else can do about it.
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>

#include <csignal>
#include <fstream>

#include "tests/shard/ShardTest.h"

namespace Shard {
namespace {

using namespace std::chrono_literals;
using Kind = PlainKind<6>;
constexpr uint32_t capacity = 40;
constexpr int cannot = 77;  // what the test needs is not allowed here

// What `body` returns in a forked child, or minus the signal that ended it.
template <class Body>
int inChild(Body&& body) {
    const pid_t child = fork();
    if (child == 0) alarm(30), std::exit(body());
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

class Attack : public testing::Test {
  protected:
    Attack() { alarm(20); }  // a test that waits for an attacker dies
    ~Attack() override { alarm(0); }

    auto writer() { return std::make_unique<Kind::Writer>(space_, "map", capacity); }
    // The first key's value is found; or how far it came.
    int readsFirst(std::chrono::milliseconds patience) {
        Kind::Reader reader{Namespace(run_.path), "map"};
        Kind::Value value;
        if (reader.update() == MapState::absent && !reader.await(patience)) return 1;
        while (reader.update() == MapState::mounting)
            if (!reader.await(patience)) return 2;
        return reader.find(1, value) != Lookup::found ? 3 : value != Kind::value(1, 1);
    }

    const TempDir run_;
    const Namespace space_{run_.path};
    const Vandal vandal_{space_.fileOf("map")};
};

TEST_F(Attack, AReaderTrustsNothingThatOthersMayHaveMade) {
    const auto first = writer();
    first->valueIs(1, Kind::value(1, 1));
    first->mountComplete();
    // A damaged word with the tag of the key, before the key's own: any slot of the probe has it.
    uint64_t index[256], home = 0;
    ASSERT_EQ(pread(vandal_.open(0).get(), index, sizeof index, sizeof(Header)), sizeof index);
    while (index[home] == 0) ++home;
    vandal_.put(sizeof(Header) + (home + 1) * 8, index[home]);
    vandal_.put(sizeof(Header) + home * 8, index[home] | (maxUnits - 1));
    EXPECT_EQ(readsFirst(0ms), 0) << "a damaged word costs another key";
    Kind::Reader reader(space_, "map");
    chmod(space_.fileOf("map").c_str(), 0622);
    EXPECT_EQ(reader.update(), MapState::refused);
    vandal_.squat(0);
    EXPECT_EQ(reader.update(), MapState::refused) << "a FIFO";
}

TEST_F(Attack, AWriterKeepsItsMapWhateverChildrenAndSignalsDo) {
    auto first = writer();
    EXPECT_EQ(inChild([&] { return first.reset(), 0; }), 0);
    EXPECT_TRUE(first->commit()) << "a child's exit took the map down";
    try {
        writer();
        ADD_FAILURE() << "a second writer";
    } catch (const Vel::Error& error) {
        const std::string process = "(process " + std::to_string(getpid()) + ")";
        EXPECT_TRUE(std::string_view(error.what()).ends_with(process)) << error.what();
    }
    EXPECT_EQ(inChild([&] {
                  kill(getpid(), SIGBUS);
                  vandal_.cut(100);
                  for (uint32_t key = 0; key < capacity; ++key) first->valueIs(key, {});
                  return 0;
              }),
              0)
        << "the guard did not survive a stray signal";
}

// A reader beyond the kernel's limit of watchers. Read access is all that a reader needs, and it
// gives no power over the writer.
TEST_F(Attack, AnybodyWhoMayReadCan) {
    if (geteuid() != 0) GTEST_SKIP() << "giving files to another group takes root";
    constexpr gid_t group = 4242;
    ASSERT_EQ(chown(run_.path.c_str(), 0, group) | chmod(run_.path.c_str(), 0750), 0);
    auto first = std::make_unique<Kind::Writer>(Namespace(run_.path), "map", capacity);
    first->valueIs(1, Kind::value(1, 1));
    EXPECT_EQ(inChild([&] {
                  if (setgroups(0, nullptr) | setgid(group) | setuid(65534)) return cannot;
                  first->mountComplete();
                  return open(space_.fileOf("map").c_str(), O_RDWR) < 0 ? readsFirst(0ms) : 4;
              }),
              0);
    const int beyondLimit = inChild([&] {
        if (unshare(CLONE_NEWUSER) != 0) return cannot;
        std::ofstream("/proc/self/uid_map") << "0 0 1" << std::flush;
        std::ofstream("/proc/sys/user/max_inotify_instances") << 0 << std::flush;
        return readsFirst(20000ms);
    });
    vandal_.keepName();
    first.reset();
    vandal_.restoreName();
    const Descriptor fd(open(space_.fileOf("map").c_str(), O_RDONLY));
    struct flock lock {};
    lock.l_type = F_RDLCK;
    ASSERT_EQ(fcntl(fd.get(), F_OFD_SETLK, &lock), 0);
    EXPECT_NO_THROW(writer()) << "a reader's lock";
    if (beyondLimit == cannot) GTEST_SKIP() << "no user namespace, whose limit could be lowered";
    EXPECT_EQ(beyondLimit, 0);
}

}  // namespace
}  // namespace Shard

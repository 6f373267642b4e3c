// More transitions than can wait. What a program is told, one that hangs, fails or is missing:
// operations_test.py.
#include "agent/shell/Hooks.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <set>

#include "tests/TempDir.h"

namespace {

using Agent::Hooks;

TEST(HooksTest, TheOldestAreDroppedAndCounted) {
    const TempDir dir;
    const std::string program = dir.path + "/hook", told = dir.path + "/told";
    std::ofstream(program) << "#!/bin/sh\necho $2 >> " << told << "\n";
    ASSERT_EQ(chmod(program.c_str(), 0700), 0);

    Loom::MonotonicClock clock;
    Loom::TaskScheduler scheduler{clock};
    Agent::EventLoop loop{scheduler};
    Hooks hooks(loop, program, std::chrono::seconds(60));
    constexpr size_t surplus = 50, all = Hooks::atOnce + Hooks::mostWaiting + surplus;
    for (size_t i = 0; i < all; ++i) hooks.add({"path", std::to_string(i), "up", {}});
    const auto deadline = clock.now() + std::chrono::seconds(60);
    while (hooks.count(Hooks::Result::succeeded) < all - surplus && clock.now() < deadline)
        loop.runOnce(std::chrono::seconds(1));

    EXPECT_EQ(hooks.count(Hooks::Result::dropped), surplus);
    EXPECT_EQ(hooks.count(Hooks::Result::failed), 0U);
    std::set<size_t> names;
    std::ifstream lines(told);
    for (size_t name = 0; lines >> name;) names.insert(name);
    EXPECT_EQ(names.size(), all - surplus);
    EXPECT_TRUE(names.contains(0)) << "started at once";
    EXPECT_EQ(*names.upper_bound(Hooks::atOnce - 1), Hooks::atOnce + surplus);
    EXPECT_TRUE(names.contains(all - 1));
}

}  // namespace

// The run directory, the JSON texts, and nav-agent as a process.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "agent/Json.h"
#include "agent/RunDir.h"

namespace {

namespace fs = std::filesystem;
using Agent::Json;

class ProcessTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string name = testing::TempDir() + "process.XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        dir = name;
    }
    void TearDown() override { fs::remove_all(dir); }

    pid_t start(const std::vector<std::string>& arguments) {
        const pid_t child = fork();
        if (child != 0) return child;
        std::vector<char*> argv{const_cast<char*>("nav-agent")};
        for (const std::string& each : arguments) argv.push_back(const_cast<char*>(each.c_str()));
        argv.push_back(nullptr);
        if (freopen((dir + "/errors").c_str(), "w", stderr) == nullptr) _exit(99);
        execv(NAV_AGENT, argv.data());
        _exit(98);
    }
    static int statusOf(pid_t child) {
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    bool awaitSocket() {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!fs::is_socket(dir + "/run/control.sock")) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::yield();
        }
        return true;
    }
    std::string errors() { return Agent::readFile(dir + "/errors"); }

    std::string dir;
};

TEST_F(ProcessTest, OneAgentToARunDirectoryWhateverACrashedOneLeft) {
    const std::string run = dir + "/run";
    const pid_t crashed = start({"--run-dir", run});
    ASSERT_TRUE(awaitSocket());
    struct stat status;
    ASSERT_EQ(stat(run.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0700u);
    EXPECT_EQ(statusOf(start({"--run-dir", run})), 1);
    EXPECT_NE(errors().find("another agent runs there (pid " + std::to_string(crashed) + ")"),
              std::string::npos);
    ASSERT_TRUE(fs::exists(run + "/control.sock"));  // the refused one left it alone
    kill(crashed, SIGKILL);
    EXPECT_EQ(statusOf(crashed), -SIGKILL);

    for (const int signal : {SIGTERM, SIGINT}) {
        fs::remove(run + "/control.sock");
        const pid_t next = start({"--run-dir", run});
        ASSERT_TRUE(awaitSocket());
        kill(next, SIGHUP);  // without a configuration file there is nothing to reload
        kill(next, signal);
        EXPECT_EQ(statusOf(next), 0);
        EXPECT_FALSE(fs::exists(run + "/control.sock"));
        EXPECT_FALSE(fs::exists(run + "/command.sock"));
    }
}

TEST_F(ProcessTest, WhatCannotRunSaysWhy) {
    std::ofstream(dir + "/file") << "{\n  \"a\": 1,\n  \"b\": }\n";
    const std::string file = dir + "/file", run = dir + "/run";
    for (const auto& [arguments, status, reason] :
         std::initializer_list<std::tuple<std::vector<std::string>, int, std::string>>{
             {{"--platform", "cloud"}, 2, "cloud"},
             {{"--log-level", "9"}, 2, "--log-level"},
             {{"--world", "w", "--platform", "manual"}, 2, "--world"},
             {{"--run-dir", file}, 1, file + ": Not a directory"},
             {{"--run-dir", dir + "/no/where"}, 1, "No such file or directory"},
             {{"--run-dir", dir + "/" + std::string(90, 'x')}, 1, "107 bytes"},
             {{"--run-dir", run, "--config", file}, 1, file + ": line 3"},
             {{"--run-dir", run, "--config", dir}, 1, dir + ": Is a directory"}}) {
        EXPECT_EQ(statusOf(start(arguments)), status) << reason;
        EXPECT_NE(errors().find(reason), std::string::npos) << errors();
    }
    EXPECT_FALSE(fs::exists(run + "/control.sock"));
}

TEST(JsonTest, PlacesHaveTheLineOnWhichTheyBegin) {
    const std::string text = R"({ "a": {"b": 1},
  "c": [
    {"b": [1,
           "x"]},
    "y"], "a/d": 2
})";
    // clang-format off
    const std::pair<const char*, size_t> places[] = {
        {"", 1}, {"/a/b", 1}, {"/c", 2}, {"/c/0/b", 3}, {"/c/0/b/1", 4}, {"/c/1", 5},
        {"/a~1d", 5}, {"/c/7", 2}, {"/c/0/zzz/1", 3}, {"/nowhere", 1}};
    // clang-format on
    for (const auto& [place, line] : places) {
        EXPECT_EQ(Agent::lineOf(text, Json::json_pointer(place)), line) << place;
    }
}

}  // namespace

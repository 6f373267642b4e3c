// nav-agent and navctl as an operator runs them, on the kernel of a network namespace.
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/linux_platform/Network.h"

namespace Agent::Linux {
namespace {

class MainJob : public Network {
  protected:
    void start(const std::string& configuration) {
        ASSERT_NE(mkdtemp(dir.data()), nullptr);
        std::ofstream(dir + "/config.json") << configuration;
        agent = fork();
        if (agent != 0) return;
        if (freopen("/dev/null", "w", stderr) == nullptr) _exit(99);
        execl(NAV_AGENT, "nav-agent", "--platform", "linux", "--run-dir", (dir + "/run").c_str(),
              "--config", (dir + "/config.json").c_str(), nullptr);
        _exit(98);
    }
    int stop(int signal) {
        int status = 0;
        kill(agent, signal);
        waitpid(std::exchange(agent, 0), &status, 0);
        return status;
    }
    void TearDown() override {
        if (agent > 0) stop(SIGKILL);
        std::filesystem::remove_all(dir);
        Network::TearDown();
    }
    // Awaits that navctl shows these paths.
    testing::AssertionResult become(const Paths& wanted) const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        const std::string command = NAVCTL " --run-dir " + dir + "/run show paths --raw 2>&1";
        for (std::string shown;; shown.clear()) {
            FILE* pipe = popen(command.c_str(), "r");
            for (int c; (c = std::fgetc(pipe)) != EOF;) shown += static_cast<char>(c);
            pclose(pipe);
            if (readPaths(shown) == wanted) return testing::AssertionSuccess();
            if (std::chrono::steady_clock::now() > deadline)
                return testing::AssertionFailure() << shown;
        }
    }

    std::string dir = testing::TempDir() + "linux.XXXXXX";
    pid_t agent = 0;
};

TEST_F(MainJob, PathsComeFromTheKernelsAddressesAndMoveWithThem) {
    const std::string bothLinks =
        "route add 198.51.100.2 nexthop via 203.0.113.254 nexthop via 192.0.2.254\n";
    ASSERT_TRUE(ip(bothLinks));
    start(R"({"navConfigured": true, "pathGroupConfig": {"internet": {
        "localIntf": ["wan1", "wan2"],
        "remoteViaConfig": {"10.255.0.2": {"remoteVia": ["198.51.100.2"]}}}}})");
    const std::string first = "203.0.113.1 198.51.100.2", moved = "203.0.113.77 198.51.100.2",
                      second = "192.0.2.1 198.51.100.2";
    const Paths both = {{first, "Estab"}, {second, "Estab"}};
    ASSERT_TRUE(become(both));
    ASSERT_TRUE(ip("addr add 203.0.113.77/32 dev wan1\naddr del 203.0.113.1/24 dev wan1\n"));
    ASSERT_TRUE(become({{moved, "Estab"}, {second, "Estab"}}));
    ASSERT_TRUE(ip("addr add 203.0.113.1/24 dev wan1\naddr del 203.0.113.77/32 dev wan1\n"));
    ASSERT_TRUE(become(both));
    // Down and up within a millisecond takes the link's only route, untold; the address stays.
    ASSERT_TRUE(ip("route replace 198.51.100.2 via 192.0.2.254\n"));
    flap("wan2", {false, true});
    ASSERT_TRUE(become({{first, "Route Pending"}, {second, "Route Pending"}}));
    flap("wan1", {false, true, false});
    ASSERT_TRUE(become({{second, "Route Pending"}}));
    flap("wan1", {true});
    ASSERT_TRUE(ip(bothLinks));
    ASSERT_TRUE(become(both));
    EXPECT_EQ(stop(SIGTERM), 0);
}

}  // namespace
}  // namespace Agent::Linux

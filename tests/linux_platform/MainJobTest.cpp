// nav-agent and navctl as an operator runs them, on the kernel of a network namespace.
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/linux_platform/Network.h"

namespace Agent::Linux {
namespace {

class MainJob : public Network {
  protected:
    void SetUp() override {
        Network::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        std::string name = testing::TempDir() + "linux.XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        dir_ = name;
    }
    void TearDown() override {
        if (agent_ > 0) stop(SIGKILL);
        if (!dir_.empty()) std::filesystem::remove_all(dir_);
        Network::TearDown();
    }

    void start(const std::string& configuration) {
        std::ofstream(dir_ + "/config.json") << configuration;
        agent_ = fork();
        if (agent_ != 0) return;
        execl(NAV_AGENT, "nav-agent", "--platform", "linux", "--run-dir", (dir_ + "/run").c_str(),
              "--config", (dir_ + "/config.json").c_str(), nullptr);
        _exit(98);
    }
    int stop(int signal) {
        int status = 0;
        kill(agent_, signal);
        waitpid(std::exchange(agent_, 0), &status, 0);
        return status;
    }
    Paths show() const {
        const std::string command = NAVCTL " --run-dir " + dir_ + "/run show paths --raw 2>&1";
        FILE* pipe = popen(command.c_str(), "r");
        std::string text;
        for (int c; (c = std::fgetc(pipe)) != EOF;) text += static_cast<char>(c);
        pclose(pipe);
        return readPaths(text);
    }
    testing::AssertionResult become(const Paths& wanted) const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        Paths shown;
        while ((shown = show()) != wanted)
            if (std::chrono::steady_clock::now() > deadline)
                return testing::AssertionFailure() << testing::PrintToString(shown);
        return testing::AssertionSuccess();
    }

    std::string dir_;
    pid_t agent_ = 0;
};

TEST_F(MainJob, PathsComeFromTheKernelsAddressesAndMoveWithThem) {
    ASSERT_TRUE(
        ip("route add 198.51.100.2 nexthop via 203.0.113.254 dev wan1 "
           "nexthop via 192.0.2.254 dev wan2\n"));
    start(R"({"navConfigured": true, "pathGroupConfig": {"internet": {
        "localIntf": ["wan1", "wan2"],
        "remoteViaConfig": {"10.255.0.2": {"remoteVia": ["198.51.100.2"]}}}}})");
    const Paths both = {{"203.0.113.1 198.51.100.2", "Estab"}, {"192.0.2.1 198.51.100.2", "Estab"}};
    ASSERT_TRUE(become(both));
    ASSERT_TRUE(ip("addr add 203.0.113.77/32 dev wan1\naddr del 203.0.113.1/24 dev wan1\n"));
    ASSERT_TRUE(
        become({{"203.0.113.77 198.51.100.2", "Estab"}, {"192.0.2.1 198.51.100.2", "Estab"}}));
    ASSERT_TRUE(
        ip("addr add 203.0.113.1/24 dev wan1\nroute replace 198.51.100.2 via 192.0.2.254\n"));
    ASSERT_TRUE(become(
        {{"203.0.113.77 198.51.100.2", "Arp Pending"}, {"192.0.2.1 198.51.100.2", "Estab"}}));
    ASSERT_TRUE(ip("addr del 203.0.113.77/32 dev wan1\n"));
    ASSERT_TRUE(become(
        {{"203.0.113.1 198.51.100.2", "Route Pending"}, {"192.0.2.1 198.51.100.2", "Estab"}}));
    // Down and up within a millisecond takes the link's routes, untold; the addresses stay.
    flap("wan2", {false, true});
    ASSERT_TRUE(become({{"203.0.113.1 198.51.100.2", "Route Pending"},
                        {"192.0.2.1 198.51.100.2", "Route Pending"}}));
    flap("wan1", {false, true, false});
    ASSERT_TRUE(become({{"192.0.2.1 198.51.100.2", "Route Pending"}}));
    flap("wan1", {true});
    ASSERT_TRUE(ip("route add 198.51.100.2 nexthop via 203.0.113.254 nexthop via 192.0.2.254\n"));
    ASSERT_TRUE(become(both));
    EXPECT_EQ(stop(SIGTERM), 0);
}

}  // namespace
}  // namespace Agent::Linux

// A router with two WAN links in a network namespace of its own, and the internet at their other
// ends in another.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <regex>

#include "tests/agent_linux/Namespace.h"

namespace Agent::Linux {

// Of each path, "source destination": its state.
using Paths = std::map<std::string, std::string>;

inline Paths readPaths(const std::string& answer) {
    static const std::regex entry(
        "'source' : '([^']*)', 'destination' : '([^']*)',[^}]*'state' : '([^']*)'");
    Paths paths;
    for (std::sregex_iterator at(answer.begin(), answer.end(), entry), end; at != end; ++at)
        paths[(*at)[1].str() + " " + (*at)[2].str()] = (*at)[3];
    return paths;
}

class Network : public InNamespace {
  protected:
    void SetUp() override {
        InNamespace::SetUp();
        if (IsSkipped()) return;
        sysctl("ipv6/conf/default/disable_ipv6", "1");
        int ready[2];
        ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
        internet_ = fork();
        if (internet_ == 0) {
            const bool apart = unshare(CLONE_NEWNET) == 0;
            if (write(ready[1], apart ? "y" : "n", 1) == 1) pause();
            _exit(0);
        }
        char answer = 'n';
        close(ready[1]);
        if (read(ready[0], &answer, 1) != 1 || answer != 'y')
            GTEST_SKIP() << "no second network namespace";
        close(ready[0]);
        const std::string there = std::to_string(internet_);
        ASSERT_TRUE(
            ip("link set lo up\n"
               "link add name wan1 type veth peer name isp1 netns " +
               there +
               "\n"
               "link add name wan2 type veth peer name isp2 netns " +
               there +
               "\n"
               "addr add 203.0.113.1/24 dev wan1\naddr add 192.0.2.1/24 dev wan2\n"
               "link set wan1 up\nlink set wan2 up\n"));
        ASSERT_TRUE(
            inInternet("link set isp1 up\nlink set isp2 up\n"
                       "addr add 203.0.113.254/24 dev isp1\naddr add 203.0.113.253/24 dev isp1\n"
                       "addr add 192.0.2.254/24 dev isp2\n"));
        // What gives up on a neighbour does so in 0.3 s.
        sysctl("ipv4/neigh/wan1/retrans_time_ms", "100");
        sysctl("ipv4/neigh/wan2/retrans_time_ms", "100");
    }
    void TearDown() override {
        if (internet_ > 0) kill(internet_, SIGKILL), waitpid(internet_, nullptr, 0);
    }

    bool inInternet(const std::string& commands) const {
        const std::string enter =
            "nsenter --net=/proc/" + std::to_string(internet_) + "/ns/net ip -batch - 2>&1";
        FILE* pipe = popen(enter.c_str(), "w");
        if (pipe == nullptr) return false;
        std::fputs(commands.c_str(), pipe);
        return pclose(pipe) == 0;
    }

  private:
    pid_t internet_ = 0;
};

}  // namespace Agent::Linux

// A router with two WAN links in a network namespace of its own, and the internet at their other
// ends in another.
#pragma once

#include <sys/prctl.h>
#include <sys/wait.h>

#include <csignal>
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
        ASSERT_TRUE(
            ip("link set lo up\n"
               "link add wan1 type veth peer name isp1\nlink add wan2 type veth peer name isp2\n"
               "addr add 203.0.113.1/24 dev wan1\naddr add 192.0.2.1/24 dev wan2\n"
               "link set wan1 up\nlink set wan2 up\n"));
        // What gives up on a neighbour does so in 0.3 s.
        for (const char* link : {"wan1", "wan2"})
            sysctl("ipv4/neigh/" + std::string(link) + "/retrans_time_ms", "100");
        internet_ = fork();
        if (internet_ == 0) {
            if (unshare(CLONE_NEWNET) != 0) _exit(1);
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            raise(SIGSTOP);
            _exit(0);
        }
        int status = 0;
        waitpid(internet_, &status, WUNTRACED);
        if (!WIFSTOPPED(status)) GTEST_SKIP() << "no second network namespace";
        const std::string there = " netns " + std::to_string(internet_) + "\n";
        ASSERT_TRUE(ip("link set isp1" + there + "link set isp2" + there));
        ASSERT_TRUE(
            inInternet("link set isp1 up\nlink set isp2 up\n"
                       "addr add 203.0.113.254/24 dev isp1\naddr add 192.0.2.254/24 dev isp2\n"));
    }
    void TearDown() override {
        if (internet_ > 0) kill(internet_, SIGKILL), waitpid(internet_, nullptr, 0);
    }

    bool inInternet(const std::string& commands) const {
        return ip(commands, "nsenter --net=/proc/" + std::to_string(internet_) + "/ns/net ");
    }

  private:
    pid_t internet_ = 0;
};

}  // namespace Agent::Linux

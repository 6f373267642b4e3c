// A network namespace of its own for every test, and the monitor on a real clock in it.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>

#include "agent/linux/kernel/KernelMonitor.h"

namespace Agent::Linux {

inline Netz::IpGenAddr addr(std::string_view text) {
    return *Netz::IpGenAddr::parse(text);
}

// Skips where the kernel gives no namespace, with the reason.
class InNamespace : public testing::Test {
  protected:
    void SetUp() override {
        const auto uid = getuid();
        if (unshare(CLONE_NEWNET) == 0) return;
        if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
            GTEST_SKIP() << "no network namespace: " << std::strerror(errno);
        std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
    }

    // Runs commands of ip(8), one a line, all of them; returns whether all succeeded.
    static bool ip(const std::string& commands, const std::string& enter = "") {
        FILE* pipe = popen((enter + "ip -force -batch - 2>&1").c_str(), "w");
        std::fputs(commands.c_str(), pipe);
        return pclose(pipe) == 0;
    }
    static bool sh(const std::string& command) { return std::system(command.c_str()) == 0; }
    static void sysctl(const std::string& path, const char* value) {
        std::ofstream("/proc/sys/net/" + path) << value << std::flush;
    }
    // Sets a link's IFF_UP to each value in turn, microseconds apart.
    static void flap(const char* name, std::initializer_list<bool> states) {
        const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ifreq link{};
        std::strncpy(link.ifr_name, name, IF_NAMESIZE - 1);
        EXPECT_EQ(ioctl(control, SIOCGIFFLAGS, &link), 0);
        for (const bool up : states) {
            link.ifr_flags = static_cast<short>((link.ifr_flags & ~IFF_UP) | (up ? IFF_UP : 0));
            EXPECT_EQ(ioctl(control, SIOCSIFFLAGS, &link), 0);
        }
        close(control);
    }
};

struct Monitored {
    explicit Monitored(int receiveBuffer = KernelMonitor::defaultReceiveBuffer)
        : monitor(
              scheduler,
              {[this] { ++interfaceRounds; },
               [this] { ++forwardingRounds, roundAfterRefresh = monitor.counters().refreshes; }},
              receiveBuffer) {
        monitor.start();
    }

    // Handles what comes until the condition holds; false if it does not within 10 s.
    bool await(const std::function<bool()>& condition) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            pollfd ready{monitor.fd(), POLLIN, 0};
            poll(&ready, 1, 1);
            if (ready.revents != 0) monitor.handleReadable();
            scheduler.runDue();
        }
        return true;
    }
    // Until the round of lookups that follows what has happened so far, which must lead to one.
    bool settle() {
        const int before = forwardingRounds;
        return await([&] { return forwardingRounds != before && monitor.settled(); });
    }

    Interface named(std::string_view name) const {
        const Interface* found = monitor.interfaces().named(Netz::IntfId(name));
        return found ? *found : Interface();
    }
    std::string primary(std::string_view name) const { return named(name).primary4.stringValue(); }

    int interfaceRounds = 0;
    int forwardingRounds = 0;
    uint64_t roundAfterRefresh = 0;  // the number of dumps before the last round
    Loom::MonotonicClock clock;
    Loom::TaskScheduler scheduler{clock};
    KernelMonitor monitor;
};

}  // namespace Agent::Linux

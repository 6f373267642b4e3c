// A network namespace of its own for every test, and the monitor on a real clock in it.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>

#include "agent/linux/kernel/KernelMonitor.h"

namespace Agent::Linux {

inline void PrintTo(const RouteResult& result, std::ostream* out) {
    *out << "kind " << static_cast<int>(result.kind);
    for (const RouteVia& via : result.vias)
        *out << " [" << via.hop << " if " << via.ifIndex << " weight " << via.weight << " onLink "
             << via.onLink << "]";
}

// Skips where the kernel gives no namespace, with the reason.
class InNamespace : public testing::Test {
  protected:
    void SetUp() override {
        if (unshare(CLONE_NEWNET) == 0) return;
        const auto uid = getuid();
        if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
            GTEST_SKIP() << "no network namespace: " << std::strerror(errno);
        std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
    }

    // Runs commands of ip(8), one a line; returns whether all went well.
    static bool ip(const std::string& commands, const std::string& enter = "") {
        FILE* pipe = popen((enter + "ip -batch - 2>&1").c_str(), "w");
        if (pipe == nullptr) return false;
        std::fputs(commands.c_str(), pipe);
        return pclose(pipe) == 0;
    }
    static void sysctl(const std::string& path, const char* value) {
        std::ofstream("/proc/sys/net/" + path) << value << std::flush;
    }
    // Sets a link's IFF_UP to each value in turn, in one send: microseconds apart.
    static void flap(const char* name, std::initializer_list<bool> states) {
        RequestSocket requests;
        requests.exchange(
            states.size(),
            [&](MessageWriter& writer, uint32_t sequence, size_t i) {
                ifinfomsg header{};
                header.ifi_index = static_cast<int>(if_nametoindex(name));
                header.ifi_flags = states.begin()[i] ? IFF_UP : 0;
                header.ifi_change = IFF_UP;
                writer.begin(RTM_NEWLINK, NLM_F_ACK, sequence, header);
            },
            [](size_t, const Message& answer) { EXPECT_EQ(errorOf(answer), 0); });
    }
    static Netz::IpGenAddr addr(std::string_view text) { return *Netz::IpGenAddr::parse(text); }
};

struct Monitored {
    explicit Monitored(int receiveBuffer = KernelMonitor::defaultReceiveBuffer)
        : monitor(scheduler, {[this] { ++interfaceRounds; }, [this] { ++forwardingRounds; }},
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
    // Until nothing is left to be done about what has happened so far.
    bool settle() {
        const int before = forwardingRounds;
        return await([&] { return forwardingRounds != before; });
    }

    Interface named(std::string_view name) const {
        for (const Interface& interface : monitor.interfaces().interfaces)
            if (interface.name.str() == name) return interface;
        return {};
    }
    std::string primary(std::string_view name) const { return named(name).primary4.stringValue(); }

    int interfaceRounds = 0;
    int forwardingRounds = 0;
    Loom::MonotonicClock clock;
    Loom::TaskScheduler scheduler{clock};
    KernelMonitor monitor;
};

}  // namespace Agent::Linux

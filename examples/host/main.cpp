// A small host of the library: it owns the inputs, takes the part of the router's services, follows
// what is published, and drives the scheduler from a loop over poll(2). Each line of standard input
// is something that happens to the router:
//
//     wan1 203.0.113.1/24      the interface has this address
//     wan1 down                it has none any more
//
// It prints when paths come up and go away, and at the end of the input all paths.
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>

#include "nav/root/NavRootSm.h"
#include "platform/trace/Duolog.h"

namespace {

// The routing service: a default route for each interface, by the gateway 203.0.113.254.
class RoutingService {
  public:
    explicit RoutingService(const Nav::NavInputs& inputs)
        : in_(inputs), vrfs_(*this, *in_.nexthopConfig, Routing::NexthopConfig::vrfAttr) {
        in_.forwardingStatus->fecIs(
            fecId, std::vector<Shard::Fib::Via>{{.hop = *Netz::IpGenAddr::parse("203.0.113.254"),
                                                 .intfId = Netz::IntfId("wan1")}});
        in_.nexthopStatus->vrfIs("default");
        vrfs_.initialize();
    }

  private:
    static constexpr Vel::U64 fecId = 1;

    // The requests of one VRF: one of these for each element of the collection `vrf`.
    struct Vrf final : Vel::Object {
        Vrf(RoutingService& owner, Routing::NexthopVrfConfig& vrf)
            : service(owner),
              requested(vrf),
              changed(Vel::Subscription::to<&Vrf::answer>(
                  vrf, Routing::NexthopVrfConfig::nexthopAttr, this)) {}
        void handleInitialized() {
            for (const Netz::IpGenAddr& address : requested->nexthop()) answer(address);
        }
        // Called after the address was added or removed: the state as it is now says which.
        void answer(const Netz::IpGenAddr& address) {
            Routing::NexthopVrfStatus& results =
                service.in_.nexthopStatus->vrfIs(requested->vrfName());
            if (requested->nexthopHas(address))
                results.nexthopIs({address, fecId});
            else
                results.nexthopDel(address);
        }

        RoutingService& service;
        const Vel::Ptr<Routing::NexthopVrfConfig> requested;
        const Vel::Subscription changed;
    };

    const Nav::NavInputs in_;
    Vel::EntryReactorsOf<Vrf, decltype(Routing::NexthopConfig::vrfAttr)> vrfs_;
};

// The forwarding side: programs every path that is resolved, and reports it. Created after the
// root, which publishes the directory of paths.
class ForwardingSide {
  public:
    explicit ForwardingSide(const Nav::NavInputs& inputs)
        : hardware_(inputs.hwPathStatus.ptr()),
          vrfs_(*this, *inputs.navStatusDir->navPathStatusDir(),
                Nav::PathStatusDir::pathStatusAttr) {
        vrfs_.initialize();
    }

  private:
    struct Vrf;
    struct Path final : Vel::Object {
        Path(Vrf& vrf, Nav::PathStatusEntry& entry)
            : side(vrf.side),
              status(entry),
              resolved(Vel::Subscription::to<&Path::programme>(
                  entry, Nav::PathStatusEntry::pathInfoAttr, this)),
              programmed(Vel::Subscription::to<&Path::report>(
                  entry, Nav::PathStatusEntry::programmedAttr, this)) {}
        void handleInitialized() { programme(); }
        void handleDelete() {
            withdraw();
            print(" is removed");
        }

        void programme() {
            const Nav::HwPathInfo& info = status->pathInfo();
            if (info.pathState != Nav::PathState::resolved) return withdraw();
            const Nav::PathKey& key = status->key();
            index = info.pathIndex;
            side.hardware_->hwPathStatusListIs(
                {key.srcAddr, key.dstAddr, key.vrfId, index}, [this](auto& hardware) {
                    hardware.hwPathIndexIs(index);  // its number in the hardware's table
                    hardware.hwArpIndexIs(1);       // that of the next hop, which answers
                });
        }
        void withdraw() {
            const Nav::PathKey& key = status->key();
            if (index != 0)
                side.hardware_->hwPathStatusListDel({key.srcAddr, key.dstAddr, key.vrfId, index});
            index = 0;
        }
        void report() { print(status->programmed() ? " is up" : " is down"); }
        void print(const char* what) {
            std::cout << status->key().srcAddr << " -> " << status->key().dstAddr << what
                      << std::endl;
        }

        ForwardingSide& side;
        const Vel::Ptr<Nav::PathStatusEntry> status;
        const Vel::Subscription resolved, programmed;
        Vel::U32 index = 0;  // 0: not in hardware
    };
    struct Vrf final : Vel::Object {
        Vrf(ForwardingSide& owner, Nav::PathStatus& vrf)
            : side(owner), paths(*this, vrf, Nav::PathStatus::pathStatusEntryAttr) {}
        void handleInitialized() { paths.initialize(); }
        void doCleanup() { paths.clear(); }

        ForwardingSide& side;
        Vel::EntryReactorsOf<Path, decltype(Nav::PathStatus::pathStatusEntryAttr)> paths;
    };

    const Vel::Ptr<Nav::HwPathStatus> hardware_;
    Vel::EntryReactorsOf<Vrf, decltype(Nav::PathStatusDir::pathStatusAttr)> vrfs_;
};

// One path group: the interface wan1, and a site with two addresses.
void configure(Nav::NavCliConfig& config) {
    const auto address = [](const char* text) { return *Netz::IpGenAddr::parse(text); };
    Nav::PathGroupConfig& internet = config.pathGroupConfigIs("internet");
    internet.localIntfIs(Netz::IntfId("wan1"));
    Nav::RemoteViaConfig& site = internet.remoteViaConfigIs(address("10.255.0.2"));
    site.remoteViaIs(address("198.51.100.2"));
    site.remoteViaIs(address("198.51.100.6"));
    config.navConfiguredIs(true);
}

// An event of the router; bad input is refused and changes nothing.
void handleLine(const Nav::NavInputs& inputs, const std::string& line) try {
    const size_t space = line.find(' ');
    const std::string value = space == line.npos ? "" : line.substr(space + 1);
    const auto address =
        value == "down" ? Netz::IpAddrWithMask() : Netz::IpAddrWithMask::parse(value);
    if (!address) throw Vel::Error("\"" + line + "\": expected INTERFACE ADDRESS/LENGTH or down");
    inputs.ipStatusDir->ipIntfStatusIs(Netz::IntfId(line.substr(0, space)))
        .activeAddrWithMaskIs(*address);
} catch (const Vel::Error& error) {
    std::cerr << "host: " << error.what() << std::endl;
}

// How long poll(2) may sleep until the scheduler has something to do; -1: for ever.
int patience(Vel::Scheduler& scheduler) {
    const auto next = scheduler.nextDeadline();
    if (!next) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*next - scheduler.now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

void run(const Nav::NavInputs& inputs) {
    Vel::Scheduler& scheduler = *inputs.scheduler;
    std::string received;
    pollfd input{STDIN_FILENO, POLLIN, 0};
    for (;;) {
        scheduler.runDue();
        if (poll(&input, 1, patience(scheduler)) <= 0) continue;
        char bytes[4096];
        const ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
        if (count <= 0) return;
        received.append(bytes, static_cast<size_t>(count));
        for (size_t end; (end = received.find('\n')) != received.npos; received.erase(0, end + 1)) {
            handleLine(inputs, received.substr(0, end));
            scheduler.runDue();
        }
    }
}

// A violated invariant: keep the trace, then the process ends.
void keepTrace(const char* text, const char* file, int line) {
    std::cerr << "host: " << file << ':' << line << ": assertion failed: " << text << std::endl;
    Ringlog::dump(STDERR_FILENO);
}

}  // namespace

int main() {
    Vel::assertHandlerIs(keepTrace);
    Duolog::textSinkIs(STDERR_FILENO);  // levels up to 5, unless Duolog::levelIs() says otherwise
    Loom::MonotonicClock clock;
    const Nav::NavInputs inputs = Nav::makeNavInputs(Vel::make<Vel::Scheduler>(clock));
    const Vel::Ptr<Nav::NavRootSm> root = Nav::NavRootSmIs(inputs);
    const RoutingService routing(inputs);
    const ForwardingSide forwarding(inputs);

    configure(*inputs.cliConfig);
    run(inputs);

    root->showNavPaths(STDOUT_FILENO);
    std::cout << std::endl;
    return EXIT_SUCCESS;
}

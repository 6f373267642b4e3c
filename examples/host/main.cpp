// The smallest host of the library: it owns the seventeen inputs, takes the part of the router's
// services itself, and prints the paths.
#include <unistd.h>

#include "nav/root/NavRootSm.h"

int main() {
    Loom::MonotonicClock clock;
    const Nav::NavInputs inputs = Nav::makeNavInputs(Vel::make<Vel::Scheduler>(clock));
    Vel::Owned<Nav::NavRootSm> root;
    root.is(inputs);

    // One WAN interface, one remote site with two addresses.
    const auto address = [](const char* text) { return *Netz::IpGenAddr::parse(text); };
    Nav::NavCliConfig& config = *inputs.cliConfig;
    config.navConfiguredIs(true);
    Nav::PathGroupConfig& internet = config.pathGroupConfigIs("internet");
    internet.localIntfIs(Netz::IntfId("wan1"));
    Nav::RemoteViaConfig& site = internet.remoteViaConfigIs(address("10.255.0.2"));
    site.remoteViaIs(address("198.51.100.2"));
    site.remoteViaIs(address("198.51.100.6"));

    // The interface gets its address: the paths are created.
    inputs.ipStatusDir->ipIntfStatusIs(Netz::IntfId("wan1"))
        .activeAddrWithMaskIs(*Netz::IpAddrWithMask::parse("203.0.113.1/24"));
    inputs.scheduler->runDue();

    root->showNavPaths(STDOUT_FILENO);
    return write(STDOUT_FILENO, "\n", 1) == 1 ? 0 : 1;
}

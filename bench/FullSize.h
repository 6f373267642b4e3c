// A router at full size: 128 paths over four WAN interfaces to 31 sites, all programmed, and 1023
// load-balance keys (each site for 11 applications in 3 VRFs), whose members are the site's paths.
// The number of sites, applications and VRFs can be reduced.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "nav/root/NavRootSm.h"

namespace Bench {

using Vel::U32;
using Vel::U64;

struct Size {
    U32 sites = 31;
    U32 apps = 11;
    U32 vrfs = 3;
    U32 spares = 1;       // of each interface: sites with one more destination
    U32 rulesPerApp = 1;  // which share the application's keys
    U32 paths() const { return 4 * (sites + spares); }
    U32 keys() const { return sites * apps * vrfs; }
};

class FullRouter {
  public:
    static constexpr U32 interfaces = 4;

    explicit FullRouter(const Size& size = {}, bool configured = true);

    void configuredIs(bool on);
    // Removes the interface's address, or restores it and programs all its paths again.
    void interfaceFails(U32 interface);
    void interfaceReturns(U32 interface);
    // Changes the next hop of the only via of a path's FEC, and runs what is due.
    void fecChanges(U32 path, U32 hop);
    // Removes the path's destination from its group, or adds it.
    void destinationIs(U32 path, bool listed);
    // Reports every path as programmed, with its present index; the second function removes the
    // earlier reports.
    void program();
    void programAnew();

    const Size size;
    Loom::ManualClock clock;
    Nav::NavInputs in;
    Vel::Ptr<Nav::NavRootSm> root;

    static Netz::IntfId intf(U32 interface);
    static Netz::IpGenAddr source(U32 interface);
    // Each path has its own destination and FEC, counted from 0 by interface.
    static Netz::IpGenAddr destination(U32 path);
    U32 interfaceOf(U32 path) const { return path / (size.sites + size.spares); }
    Nav::PathKey pathKey(U32 path) const;
    Shard::Fib::Via via(U32 path, U32 hop = 1) const;
    // The path's key for a forwarding agent at this time.
    Nav::HwPathKey hwPathKey(U32 path) const;

  private:
    static constexpr U32 hops = 4;
    std::array<std::vector<Shard::Fib::Fec>, hops> fecs_;  // of each path by next hop
};

// Raises an error unless every path exists, and is a member of its site's keys.
void requireFull(const FullRouter& router);

}  // namespace Bench

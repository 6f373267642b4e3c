// A root with its seventeen inputs, as the tests of the reactors share it. A failed assertion of
// the library throws AssertionFailed; when a test ends, no entity may be left that was not there
// before.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "nav/root/NavRootSm.h"
#include "platform/trace/Duolog.h"

namespace Nav::Test {

struct AssertionFailed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

inline Netz::IpGenAddr ip(std::string_view text) {
    return Netz::IpGenAddr::parse(text).value();
}

// Declared first, so that it looks when everything else is gone.
struct LiveObjectCheck {
    const std::map<std::string, Vel::U32> baseline = Vel::liveObjects();
    ~LiveObjectCheck() { EXPECT_EQ(Vel::liveObjects(), baseline); }
};

// Does something when an attribute changes.
template <class F>
struct On {
    F f;
    Vel::Subscription subscription;
    template <class E, class Key>
    On(E& entity, Vel::Attr<E, Key> attr, F action)
        : f(std::move(action)),
          subscription(Vel::Subscription::to<&On::handle>(entity, attr, this)) {}
    void handle() { f(); }
};

class NavFixture : public testing::Test {
  protected:
    NavFixture() {
        Vel::assertHandlerIs(
            [](const char* text, const char*, int) { throw AssertionFailed(text); });
    }
    ~NavFixture() override {
        root = nullptr;
        Duolog::captureIs(nullptr);
        Vel::assertHandlerIs(nullptr);
    }

    // The root, with the feature switched on unless told otherwise.
    void start(bool configured = true) {
        cli.navConfiguredIs(configured);
        root = NavRootSmIs(in);
    }
    NavDb& navDb() { return *root->navContainer()->navDb(); }
    PathStatusDir& pathStatusDir() { return *in.navStatusDir->navPathStatusDir(); }

    // What an operator or a service of the router does, one call each.
    Ip::IpIntfStatus& intfStatus(const std::string& intf) {
        return in.ipStatusDir->ipIntfStatusIs(Netz::IntfId(intf));
    }
    void address(const std::string& intf, const std::string& withMask) {
        intfStatus(intf).activeAddrWithMaskIs(Netz::IpAddrWithMask::parse(withMask).value());
    }
    void intfVrf(const std::string& intf, const std::string& vrf) {
        intfStatus(intf).vrfNameIs(vrf);
    }
    void vrfId(const std::string& vrf, U32 id) {
        in.routingHwRouteStatus->vrfStatusIs(vrf).vrfIdIs(id);
    }
    PathGroupConfig& group(const std::string& name) { return cli.pathGroupConfigIs(name); }
    void listIntf(const std::string& name, const std::string& intf) {
        group(name).localIntfIs(Netz::IntfId(intf));
    }
    void via(const std::string& name, const std::string& site, const std::string& dst) {
        group(name).remoteViaConfigIs(ip(site)).remoteViaIs(ip(dst));
    }

    static PathKey key(const std::string& src, const std::string& dst, U32 vrf = 0) {
        return {ip(src), ip(dst), vrf};
    }
    // The index of a configured path, in whichever VRF it is; 0 if it is in none.
    U32 indexOf(const PathKey& pathKey) {
        for (PathConfig& vrf : in.pathConfigDir->pathConfig())
            if (const auto* entry = vrf.pathConfigEntry(pathKey)) return entry->pathIndex();
        return 0;
    }
    std::set<PathKey> configuredPaths() {
        std::set<PathKey> keys;
        for (const PathConfig& vrf : in.pathConfigDir->pathConfig())
            for (const auto& entry : vrf.pathConfigEntry())
                EXPECT_TRUE(keys.insert(entry.key()).second) << "in two VRFs: " << entry.key();
        return keys;
    }

    // Every trace line of a facility from now on, down to the entries of handlers.
    std::vector<std::string>& capture(const char* facility) {
        Duolog::levelIs(facility, 8);
        traces_.clear();
        Duolog::captureIs(&traces_);
        return traces_;
    }
    // Whether a line ended so.
    bool traced(std::string_view text) const {
        return std::ranges::any_of(traces_, [&](auto& line) { return line.ends_with(text); });
    }

    LiveObjectCheck live;
    Loom::ManualClock clock;
    NavInputs in = makeNavInputs(Vel::make<Vel::Scheduler>(clock));
    NavCliConfig& cli = *in.cliConfig;
    Vel::Ptr<NavRootSm> root;

  private:
    std::vector<std::string> traces_;
};

}  // namespace Nav::Test

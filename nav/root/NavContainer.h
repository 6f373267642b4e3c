// The path database and the reactors, which exist while the feature is configured.
//
// Owned by the root, which creates a container when the feature is configured and deletes it when
// it is not configured any more. A new container discards the IPsec requests of an earlier one and
// derives everything anew; doCleanup() withdraws everything derived.
//
// Order of creation: the database before any reactor; path construction before resolution, so that
// the first resolution finds the paths; the policy side before the load-balance profiles. Path
// construction is also deleted before resolution, so that resolution withdraws what it derived from
// each path.
#pragma once

#include "nav/lb/NavLbSm.h"
#include "nav/path/NavPathSm.h"
#include "nav/policy/NavLoadBalancerSm.h"
#include "nav/root/NavInputs.h"

namespace Nav {

class NAV_EXPORT NavContainer final : public Vel::Reactor {
  public:
    static constexpr std::string_view name = "Nav::NavContainer";
    static constexpr U32 maxPathIndex = NavConstants::maxPathIndex;
    static constexpr U16 maxLbIndex = NavConstants::maxLbIndex;
    using Inputs = NavInputs;

    explicit NavContainer(const Inputs& inputs);
    const Inputs& inputs() const { return in_; }

    void handleInitialized() override;
    void doCleanup() override;

    bool initialized() const { return initialized_; }  // complete, and not cleaned up
    // Null before handleInitialized() and after doCleanup().
    NavDb* navDb() const { return navDb_.get(); }
    NavPathGroupDirSm* navPathGroupDirSm() const { return navPathGroupDirSm_.get(); }
    NavPathResolutionDirSm* navPathResolutionDirSm() const { return navPathResolutionDirSm_.get(); }
    NavLoadBalancerSm* navLoadBalancerSm() const { return navLoadBalancerSm_.get(); }
    LbProfileSm* navLbProfileSm() const { return navLbProfileSm_.get(); }

  private:
    ~NavContainer() override;

    const Inputs in_;
    bool initialized_ = false;
    bool ended_ = false;  // from doCleanup() on
    Vel::Ptr<NavDb> navDb_;
    Vel::Owned<NavPathGroupDirSm> navPathGroupDirSm_;
    Vel::Owned<NavPathResolutionDirSm> navPathResolutionDirSm_;
    Vel::Owned<NavLoadBalancerSm> navLoadBalancerSm_;
    Vel::Owned<LbProfileSm> navLbProfileSm_;
};

}  // namespace Nav

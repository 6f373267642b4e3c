// The platform of `--platform sim`: a simulated router on the network that a world file describes.
#pragma once

#include "agent/router/Platform.h"
#include "agent/sim/SimRouter.h"

namespace Agent::Sim {

class SimPlatform final : public Platform {
  public:
    // An empty name gives a world that contains only the VRF "default". Throws JsonError for a file
    // that cannot be read or is refused.
    explicit SimPlatform(const std::string& worldFile)
        : SimPlatform(worldFile.empty() ? History{} : readHistoryFile(worldFile)) {}
    explicit SimPlatform(History history) : Platform("sim"), history_(std::move(history)) {}

    void start(const Nav::NavInputs& inputs) override { router_.emplace(inputs, history_); }
    void stop() override { router_.reset(); }
    QualityStatus* quality() const override { return router_ ? &router_->quality() : nullptr; }
    // REQUIRES: started and not stopped.
    SimRouter& router() { return *router_; }
    std::optional<bool> linkUp(const Netz::IntfId& name) const override {
        if (!router_ || !router_->world().interfaces.contains(name)) return {};
        return router_->world().up(name);
    }
    PathDetail detail(const Nav::PathStatusEntry& path, const L3::VrfName& vrf) const override {
        return router_ ? router_->detail(path, vrf) : PathDetail();
    }
    Chosen choose(const Nav::LbProfileStatusEntry& entry) const override {
        return router_ ? router_->choose(entry) : Platform::choose(entry);
    }

  private:
    const History history_;
    std::optional<SimRouter> router_;
};

}  // namespace Agent::Sim

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
        : Platform("sim"), history_(worldFile.empty() ? History{} : readHistoryFile(worldFile)) {}

    void start(const Nav::NavInputs& inputs) override { router_.emplace(inputs, history_); }
    void stop() override { router_.reset(); }
    QualityStatus* quality() override { return router_ ? &router_->quality() : nullptr; }
    std::optional<bool> linkUp(const Netz::IntfId& name) const override {
        if (!router_ || !router_->world().interfaces.contains(name)) return {};
        return router_->world().up(name);
    }

  private:
    const History history_;
    std::optional<SimRouter> router_;
};

}  // namespace Agent::Sim

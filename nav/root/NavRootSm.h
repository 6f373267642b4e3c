// The root of the path-selection system. A host agent creates it with its inputs:
//
//     Vel::Ptr<Nav::NavRootSm> root = Nav::NavRootSmIs({.cliConfig = …, …, .scheduler = …});
//
// While the feature is configured, the root keeps a container with the working reactors; otherwise
// nothing is derived. The status directories and the command interface live as long as the root:
// show commands are answered in either case.
//
// A host may change any input from within any notification. Creation and deletion of the container
// are not nested: a flag that changes during one takes effect when it is done, and until then
// navContainer() is null.
//
// Releasing the last pointer deletes everything. The root has no thread: it works in notifications,
// in tasks of the scheduler and in command requests, all on the host's event thread. The inputs
// must outlive the root.
#pragma once

#include "nav/root/CliCallback.h"
#include "nav/root/NavContainer.h"
#include "nav/root/NavInputs.h"

namespace Nav {

class NAV_EXPORT NavRootSm final : public Vel::Reactor {
  public:
    static constexpr std::string_view name = "Nav::NavRootSm";
    using Inputs = NavInputs;

    explicit NavRootSm(const Inputs& inputs);
    const Inputs& inputs() const { return in_; }

    void handleInitialized() override;
    void doCleanup() override;
    // The configuration was replaced, or its flag `navConfigured` changed.
    void handleNavConfigured();

    // Replaces an input by another entity. Everything derived is withdrawn and derived anew.
    // Passing the present entity changes nothing; null is refused with an error that names the
    // attribute.
    template <class T>
    void inputIs(Vel::Input<T> NavInputs::*input, Vel::Ptr<T> entity);

    bool initialized() const { return initialized_; }
    // Null while the feature is not configured and while the container is being created or deleted.
    NavContainer* navContainer() const;
    CliCallback* navCliCallback() const { return navCliCallback_.get(); }
    Agent::AgentCommandRequestDirSm* navCliRequestDirSm() const {
        return navCliRequestDirSm_.get();
    }

    // The show commands: each writes one whole answer to the descriptor.
    void showNavPaths(U32 fd) const;
    void getNavPeers(U32 fd) const;
    void getNavMappings(U32 fd) const;

  private:
    ~NavRootSm() override;

    const NavDb* shownNavDb() const;
    bool isContainerWanted() const;
    Vel::Subscription followNavConfigured();

    Inputs in_;
    bool initialized_ = false;
    bool ended_ = false;         // from doCleanup() on, until an input was replaced
    bool inTransition_ = false;  // the container is being created or deleted
    Vel::Subscription navConfigured_;
    Vel::Owned<NavContainer> navContainer_;
    Vel::Ptr<CliCallback> navCliCallback_;
    Vel::Owned<Agent::AgentCommandRequestDirSm> navCliRequestDirSm_;
};

// Creates a root and initialises it. Refuses null inputs.
NAV_EXPORT Vel::Ptr<NavRootSm> NavRootSmIs(const NavInputs& inputs);

template <class T>
void NavRootSm::inputIs(Vel::Input<T> NavInputs::*input, Vel::Ptr<T> entity) {
    if ((in_.*input).ptr() == entity) return;
    std::string_view attribute;
    Vel::eachField<NavInputs>([&](const auto& field) {
        if constexpr (requires { field.member == input; })
            if (field.member == input) attribute = field.name;
    });
    if (!entity) Vel::nullInput(name, attribute);
    doCleanup();
    in_.*input = std::move(entity);
    if constexpr (std::is_same_v<T, NavCliConfig>) navConfigured_ = followNavConfigured();
    handleNavConfigured();
}

}  // namespace Nav

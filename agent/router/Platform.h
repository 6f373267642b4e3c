// Takes the part of the router's other services: writes the inputs that they own and serves the
// requests that the library writes. Owned by the Host, which starts it after the root reactor was
// created and stops it before that is destroyed.
//
// This class itself does nothing and is the platform `manual`: every input can be written through
// the control socket.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "agent/base/Json.h"
#include "agent/router/Constraints.h"
#include "nav/root/NavInputs.h"

namespace Agent {

// What a platform knows of a path beyond the published state. A text is empty if there is nothing
// to tell, and becomes part of a sentence for an operator.
struct PathDetail {
    std::string ipsec;  // why its IPsec connection is not established: "the peer refused it"
    bool nexthopSilent = false;  // its next hop was asked and does not answer
    std::string refused;         // why the forwarding side has refused it: "the kernel refused …"
};

class Platform {
  public:
    explicit Platform(std::string name) : name_(std::move(name)) {}
    virtual ~Platform() = default;
    Platform(const Platform&) = delete;
    Platform& operator=(const Platform&) = delete;

    const std::string& name() const { return name_; }
    bool manual() const { return name_ == "manual"; }

    // Throws if it cannot start.
    virtual void start(const Nav::NavInputs&) {}
    virtual void stop() {}
    // stop() will leave the kernel forwarding as it is.
    virtual void keepForwarding() {}
    // Called after a change of the configuration is complete.
    virtual void configured() {}
    // What the platform forwards, for `navctl show forwarding`; empty if it does not forward.
    virtual std::optional<Json> forwarding() { return {}; }
    // What is measured of the paths; null if this platform measures nothing, or has not started.
    virtual QualityStatus* quality() const { return nullptr; }
    // Reads afresh what the platform takes its state from and what it has programmed. A sentence for
    // each difference to what it believes. Called in a copy of the process, so that it may take
    // long, and has to open sockets of its own.
    virtual std::vector<std::string> validate() { return {}; }
    // What the IPsec service knows of each connection, by its key's text, for `navctl show ipsec`.
    virtual Json ipsec() { return Json::object(); }
    // Whether an interface is up; empty if it does not exist or the platform does not know.
    virtual std::optional<bool> linkUp(const Netz::IntfId&) const { return {}; }
    // About a path that has a status. Answers from memory: it is called for every path.
    virtual PathDetail detail(const Nav::PathStatusEntry&, const L3::VrfName&) const { return {}; }
    // The member paths that carry the traffic of a load-balance id now.
    virtual Chosen choose(const Nav::LbProfileStatusEntry& entry) const {
        const auto any = [](Vel::U32) { return true; };
        return chooseMembers(entry, any, any);
    }

  private:
    const std::string name_;
};

}  // namespace Agent

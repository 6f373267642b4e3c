// Who plays the router's other services: fills the inputs that are theirs and answers the requests
// that the library writes. Owned by the Host, which starts it once the root reactor is there and
// stops it before that goes.
//
// This one plays nothing. On `manual` that is all there is: whoever sits at the control socket
// plays the services, and every input can be written there.
#pragma once

#include <string>

#include "nav/root/NavInputs.h"

namespace Agent {

class Platform {
  public:
    explicit Platform(std::string name) : name_(std::move(name)) {}
    virtual ~Platform() = default;
    Platform(const Platform&) = delete;
    Platform& operator=(const Platform&) = delete;

    const std::string& name() const { return name_; }
    bool manual() const { return name_ == "manual"; }

    // Throws what keeps it from starting.
    virtual void start(const Nav::NavInputs&) {}
    virtual void stop() {}

  private:
    const std::string name_;
};

}  // namespace Agent

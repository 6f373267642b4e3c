// Answers why the overlay is as it is, starting from the configuration, so that what is down or has
// never come up is listed too: each path with the reason why it is not up, and each application to
// each site with the paths that carry it and the reasons why better ones do not.
#pragma once

#include <string>

#include "agent/observe/Observer.h"

namespace Agent {

// What the answer is about. An empty text leaves its aspect open.
struct Question {
    std::string path;         // its name, interface, source or destination
    std::string site;         // its address
    std::string application;  // its name, or "default"
};

// The question of a request, by its members of the same names. Throws RequestError.
Question questionOf(const Json& request);

// {"paths":[…],"applications":[…]}; docs/operating.md describes the members of each row. A question
// about an application is answered without paths, one about a path without applications. Throws
// RequestError if nothing configured is what was asked about. REQUIRES: the observer has just
// observed.
Json explain(const Nav::NavInputs& inputs, const Platform& platform, const Observer& observer,
             const Question& question);

}  // namespace Agent

// What the checks of the two configurations share.
#pragma once

#include <string>
#include <vector>

#include "agent/model/Tree.h"

namespace Agent {

// The place of a configuration of type E whose root has this name.
template <class E>
Path placeOf(const char* name) {
    static const Root root{name, &E::velType, {}, {}};
    return {&root, {}, {}};
}

// Refuses control characters in every key and value that is free text, and empty keys of entries
// and of maps, which are names of things.
void checkNames(const Vel::Entity& entity, const Path& place);

// The kind of an address that no router can be reached by, "a loopback"; null if one can.
const char* unusableKind(const Netz::IpGenAddr& addr);

// A sentence if `name` is not empty and the collection does not have it.
template <class Collection>
void warnUnlessConfigured(std::vector<std::string>& warnings, const std::string& who,
                          const std::string& kind, const std::string& name,
                          const Collection& collection) {
    if (!name.empty() && !collection(name))
        warnings.push_back(who + " names " + kind + " \"" + name + "\", which is not configured");
}

}  // namespace Agent

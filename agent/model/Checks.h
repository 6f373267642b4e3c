// Checks that both configurations use.
#pragma once

#include <string>
#include <vector>

#include "agent/model/Tree.h"

namespace Agent {

// The path of a configuration of type E in a tree whose root has this name.
template <class E>
Path placeOf(const char* name) {
    static const Root root{name, &E::velType, {}, {}};
    return {&root, {}, {}};
}

// Refuses control characters in keys and values that are free text, and empty keys of collections
// and maps, which are names. Throws TreeError.
void checkNames(const Vel::Entity& entity, const Path& place);

// The kind of an address that cannot be a router's, such as "a loopback"; null if it can be one.
const char* unusableKind(const Netz::IpGenAddr& addr);

// Adds a warning if `name` is not empty and not in the collection.
template <class Collection>
void warnUnlessConfigured(std::vector<std::string>& warnings, const std::string& who,
                          const std::string& kind, const std::string& name,
                          const Collection& collection) {
    if (!name.empty() && !collection(name))
        warnings.push_back(who + " names " + kind + " \"" + name + "\", which is not configured");
}

}  // namespace Agent

// What distinguishes two configurations, attribute by attribute. Free functions on entities of one
// type, whatever that is.
#pragma once

#include <string>
#include <vector>

#include "agent/base/Json.h"
#include "platform/vel/Entity.h"

namespace Agent {

struct Difference {
    std::string path;          // "/cliConfig/pathGroupConfig[mpls]/ipsecProfile"
    Vel::Datum before, after;  // null where there is none
};

// Adds the differences between two entities, which `path` names, in the order of declaration. An
// entry that only one of them has is one difference. The order of members does not count.
void addDifferences(std::vector<Difference>& differences, const Vel::Entity& before,
                    const Vel::Entity& after, const std::string& path);

// An array of {"path","before","after"}. Secrets that differ are two values "(hidden)".
Json toJson(const std::vector<Difference>& differences);

}  // namespace Agent

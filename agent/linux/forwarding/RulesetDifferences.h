// Compares the rules of the agent's table with what they should be. nft(8) lists rules in another
// form than they were written in, so those that should be are loaded, too, into a table that is
// dormant: the kernel shows it no packet. It exists for some milliseconds.
//
// Called in a copy of the process, one at a time: it waits for the kernel.
#pragma once

#include <string>
#include <vector>

namespace Agent::Linux {

inline constexpr const char* comparedTable = "inet nav_compared";

// `rules`: the commands that fill `comparedTable` with what the agent's table should hold. A
// sentence for each difference.
std::vector<std::string> rulesetDifferences(const std::string& rules);

}  // namespace Agent::Linux

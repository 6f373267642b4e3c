// The nftables rules of the agent's own table, as the text of one transaction: it makes the table
// if it is missing, and replaces every rule in it, so that no packet ever sees half of them.
//
// The table `inet nav`:
//
// - gives each flow the mark of its application, when its first packet comes from either side, and
//   keeps it in the conntrack mark;
// - lets tunnel packets in only from the destination of a configured path to its source, on the
//   path's interface, and lets a secured path neither take nor send them unprotected;
// - fits TCP's segments to the tunnel;
// - counts what each path carries of each application, in sets that a new ruleset keeps.
#pragma once

#include <string>
#include <vector>

#include "agent/linux/forwarding/Plan.h"

namespace Agent::Linux {

inline constexpr const char* nftTableName = "nav";
inline constexpr const char* nftTable = "inet nav";

// The packets of an application in one VRF.
struct ApplicationMark {
    const ApplicationConfig* application;  // null: all that no other application has
    uint32_t mark;
};

// The applications of a VRF in the order in which its policy tries them; the last one takes all.
std::vector<ApplicationMark> applicationsOf(const Nav::NavInputs& inputs,
                                            const ForwardingConfig& config, const Segment& segment,
                                            Plan& plan);

// What a rule matches for the packets of an application, in the words of nft: at least one
// expression, each for a rule. "ip dscp { 46 }".
std::vector<std::string> expressionsOf(const ApplicationMatchConfig& match);

std::string rulesetOf(const Nav::NavInputs& inputs, const ForwardingConfig& config,
                      const InterfaceView& view, Plan& plan);

}  // namespace Agent::Linux

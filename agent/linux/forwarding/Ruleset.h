// The nftables rules of the agent, as the commands of one transaction. It creates the table if it
// is missing and replaces all rules in it, so that each packet sees either the old or the new
// rules.
//
// The table `inet nav`:
//
// - assigns each flow the mark of its application by its first packet, from either side, and stores
//   it in the conntrack mark;
// - accepts tunnel packets only from the destination of a configured path to its source, on the
//   path's interface, and drops unprotected tunnel packets of a secured path in both directions;
// - clamps the TCP maximum segment size to the tunnel's MTU;
// - counts packets and bytes by application and path, in sets that survive a new ruleset.
#pragma once

#include <string>
#include <vector>

#include "agent/linux/forwarding/Plan.h"

namespace Agent::Linux {

inline constexpr const char* nftTableName = "nav";
inline constexpr const char* nftTable = "inet nav";

// The packets of an application in one VRF.
struct ApplicationMark {
    const ApplicationConfig* application;  // null: the packets that no other application matches
    uint32_t mark;
};

// The applications of a VRF in the order of its policy's rules; the last one matches every packet.
std::vector<ApplicationMark> applicationsOf(const Nav::NavInputs& inputs,
                                            const ForwardingConfig& config, const Segment& segment,
                                            Plan& plan);

// The expressions of nft that match the packets of an application, one for each rule: for example
// "ip dscp { 46 }". Empty if the match allows neither address family.
std::vector<std::string> expressionsOf(const ApplicationMatchConfig& match);

std::string rulesetOf(const Nav::NavInputs& inputs, const ForwardingConfig& config,
                      const InterfaceView& view, Plan& plan);
// Its sets, chains and rules for any table, which exists and is empty.
std::string rulesOf(const Nav::NavInputs& inputs, const ForwardingConfig& config,
                    const InterfaceView& view, Plan& plan, const std::string& table);

}  // namespace Agent::Linux

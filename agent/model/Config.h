// Reads, copies and validates whole configurations, of path selection and of forwarding.
//
// Free functions on entities without subscribers: a configuration that is read or copied is not
// part of an agent's tree. Used by the agent, and by programs that check a file without one.
#pragma once

#include <string>
#include <vector>

#include "agent/model/ForwardingConfig.h"
#include "agent/model/Tree.h"
#include "nav/config/NavCliConfig.h"
#include "platform/services/Ip.h"

namespace Agent {

// The name of the entity; the same in every agent, so that each can load a saved configuration.
inline constexpr const char* configName = "cliConfig";

// The largest configuration file, in bytes. A control request may be larger, so it can carry one.
inline constexpr size_t maxConfigBytes = 1 << 20;

using ConfigPtr = Vel::Ptr<Nav::NavCliConfig>;

// The validated configuration that a JSON object describes; absent attributes have their defaults.
// Throws TreeError.
ConfigPtr readConfig(const Json& json);
// The same from the text of a file. Throws JsonError with the line and the reason.
ConfigPtr readConfigText(const std::string& text);

ConfigPtr copyConfig(const Nav::NavCliConfig& config);

// The same for the configuration of forwarding.
ForwardingPtr readForwarding(const Json& json);
ForwardingPtr readForwardingText(const std::string& text);
ForwardingPtr copyForwarding(const ForwardingConfig& config);

// Copies every value, entry and member of `from` to `to`; equal ones are not written. A new entry
// is complete before it is announced.
void addMissing(Vel::Entity& to, const Vel::Entity& from);

// Refuses what the types cannot exclude: empty names, control characters, destinations that no path
// can have, an interface in two path groups, a destination under two sites of one
// group, a loss rate above 100, a rule with the default rule's key, more paths or load-balance ids
// than there can be. Throws TreeError.
void validateConfig(const Nav::NavCliConfig& config);

// Probable mistakes in a valid configuration, a sentence each: policies, load-balance profiles and
// path groups that are named but not configured (no error, because entries may be configured in any
// order). Given the interfaces' status, also destinations of an address family that no interface of
// the group has.
std::vector<std::string> configWarnings(const Nav::NavCliConfig& config,
                                        const Ip::Status* interfaces = nullptr);

// Refuses segments without VNI or address, duplicate VNIs, tunnel devices and addresses, a prefix
// behind two sites, a site in a VRF without segment, addresses of the wrong kind or family, values
// out of range, and matches that no packet can fit. Throws TreeError.
void validateForwarding(const ForwardingConfig& forwarding);

// Probable mistakes between the two configurations, a sentence each: applications, VRFs, sites and
// path groups that one names and the other does not contain.
std::vector<std::string> forwardingWarnings(const Nav::NavCliConfig& config,
                                            const ForwardingConfig& forwarding);

}  // namespace Agent

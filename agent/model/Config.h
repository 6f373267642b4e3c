// The configurations as a whole, of path selection and of forwarding: read from JSON, copied,
// validated.
//
// Free functions on entities that nobody has subscribed to: a configuration that is read or copied
// lives outside the tree of the agent. For the agent and for programs without one.
#pragma once

#include <string>
#include <vector>

#include "agent/model/ForwardingConfig.h"
#include "agent/model/Tree.h"
#include "nav/config/NavCliConfig.h"
#include "platform/services/Ip.h"

namespace Agent {

// The entity's own name, the same in every agent, so that a saved configuration fits each.
inline constexpr const char* configName = "cliConfig";

// The size of a configuration file that is read, in bytes; a request to load it has room for more.
inline constexpr size_t maxConfigBytes = 1 << 20;

using ConfigPtr = Vel::Ptr<Nav::NavCliConfig>;

// The configuration that a JSON object describes; attributes left out have their defaults.
// Validated. Throws TreeError.
ConfigPtr readConfig(const Json& json);
// The same from the text of a file. Throws JsonError with the line and the reason.
ConfigPtr readConfigText(const std::string& text);

ConfigPtr copyConfig(const Nav::NavCliConfig& config);

// The same for the configuration of forwarding.
ForwardingPtr readForwarding(const Json& json);
ForwardingPtr readForwardingText(const std::string& text);
ForwardingPtr copyForwarding(const ForwardingConfig& config);

// Gives `to` every value, entry and member of `from`; equal ones are not written. A new entry is
// announced whole.
void addMissing(Vel::Entity& to, const Vel::Entity& from);

// Refuses what the types alone allow: names that are empty or hold control characters, destinations
// that no path can have, an interface in two path groups, a destination under two sites of one
// group, a loss rate above 100, a rule with the default rule's key, more paths or load-balance ids
// than there can be. Throws TreeError.
void validateConfig(const Nav::NavCliConfig& config);

// What a valid configuration probably does not mean, a sentence each: policies, load-balance
// profiles and path groups that are named but not configured (no error, since the order in which
// things are configured is free). Given the interfaces' status, also destinations that no interface
// of the group can have a path to, since it has addresses of the other family only.
std::vector<std::string> configWarnings(const Nav::NavCliConfig& config,
                                        const Ip::Status* interfaces = nullptr);

// Refuses segments without VNI or address, a VNI, tunnel device or address twice, a prefix behind
// two sites, a site in a VRF without segment, addresses of the wrong kind or family, values out of
// range, matches that hold for no packet. Throws TreeError.
void validateForwarding(const ForwardingConfig& forwarding);

// Where the two configurations probably do not mean each other: applications, VRFs, sites and path
// groups that one names and the other does not have.
std::vector<std::string> forwardingWarnings(const Nav::NavCliConfig& config,
                                            const ForwardingConfig& forwarding);

}  // namespace Agent

// The configuration as a whole: read from JSON, validated, applied to the running one. What may be
// applied must never bring the system to one of its limits, not even on the way: there, running out
// of path indices or load-balance ids ends the process.
//
// Free functions on NavCliConfig entities. A configuration that is only looked at lives outside the
// tree of the agent and has no subscribers. For the agent and for programs without one.
#pragma once

#include <string>
#include <vector>

#include "agent/base/Json.h"
#include "nav/config/NavCliConfig.h"

namespace Agent {

// The entity's own name, the same in every agent, so that a saved configuration fits each.
inline constexpr const char* configName = "cliConfig";

using ConfigPtr = Vel::Ptr<Nav::NavCliConfig>;

// The configuration that a JSON object describes, what it leaves out having its default. Validated;
// PlacedError otherwise.
ConfigPtr readConfig(const Json& json);
// The same from the text of a file; JsonError with the line and the reason.
ConfigPtr readConfigText(const std::string& text);

// A copy without subscribers.
ConfigPtr copyConfig(const Nav::NavCliConfig& config);

// Refuses what the types alone allow: an interface in two path groups, a destination under two
// sites of one group, more paths or load-balance ids than there can be. PlacedError with the place
// in the configuration's JSON form.
void validateConfig(const Nav::NavCliConfig& config);

// The policies and load-balance profiles that are named but not there, a sentence each. No fault,
// since the order in which things are configured is free.
std::vector<std::string> configWarnings(const Nav::NavCliConfig& config);

// Makes `running` equal to `wanted`, a valid configuration nobody else uses, by the changes that
// this takes and no others, all that goes away before anything that comes. A new entry is announced
// whole. The feature is switched off first or on last.
//
// `configVersion` is how the reactors learn that a policy is complete, so it only grows here: when
// a policy's rules or default change and the wanted version is not above the running one, it
// becomes the running one plus one; when nothing else changes, a wanted version below it is
// ignored.
//
// Where load-balance ids that one VRF gives up could be asked for by another before they are free,
// the bindings that give up ids go before all else and come back at their turn.
void applyConfig(Nav::NavCliConfig& running, ConfigPtr wanted);

}  // namespace Agent

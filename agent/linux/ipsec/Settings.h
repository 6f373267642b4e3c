// What charon is told of a path's connection: pure functions of request and profile.
#pragma once

#include <string>

#include "agent/model/IpsecConfig.h"
#include "platform/services/Ipsec.h"

namespace Agent::Linux {

// Who encrypts. The library in charon's process knows tunnel mode only, takes packets from a device
// of its own (`ipsecDevice`), and always encapsulates ESP in UDP.
enum class EspBy : uint8_t { kernel, charon };

// The name of a CHILD_SA of the agent begins with this and ends with a hash of its settings,
// secrets excepted. So the agent recognises its own, and those made by other settings.
inline constexpr const char* childPrefix = "nav-";

// Messages of VICI. They have secrets and must not be traced.
struct Settings {
    std::string name;   // of the connection in charon
    std::string child;  // of its CHILD_SA
    Json shared;        // for load-shared; null without pre-shared key
    Json key;           // for load-key; null without private key
    Json connection;    // for load-conn

    bool operator==(const Settings&) const = default;
};

// `reqid` must stay the same as long as the path exists. Reads the profile's files; throws
// JsonError if one cannot be read.
Settings settingsOf(const Ipsec::Path::PathConfig& request, const IpsecProfileConfig& profile,
                    uint32_t reqid, EspBy espBy);

}  // namespace Agent::Linux

#include "agent/linux/ipsec/Settings.h"

#include <cstdio>

#include "platform/netz/Hash.h"

namespace Agent::Linux {

namespace {

// UDP by its number (RFC 768): a name requires /etc/protocols, which a bare system does not have.
constexpr const char* udp = "[17]";

Json listOf(const std::string& commas) {
    Json list = Json::array();
    for (size_t from = 0; from <= commas.size();) {
        const size_t to = std::min(commas.find(',', from), commas.size());
        list.push_back(commas.substr(from, to - from));
        from = to + 1;
    }
    return list;
}

std::string seconds(Vel::U32 value) {
    return std::to_string(value) + "s";
}

// The same for two settings only if they are equal, but for one case in four thousand million.
std::string childName(const Json& settings) {
    char text[16];
    std::snprintf(text, sizeof text, "%s%08x", childPrefix,
                  Netz::hashBytes(settings.dump(-1, ' ', false, Json::error_handler_t::replace)));
    return text;
}

}  // namespace

Settings settingsOf(const Ipsec::Path::PathConfig& request, const IpsecProfileConfig& profile,
                    uint32_t reqid, EspBy espBy) {
    const auto& [source, destination, vrf] = request.key();
    const std::string here = source.stringValue(), there = destination.stringValue();
    const std::string localId = profile.localId().empty() ? here : profile.localId();
    const std::string remoteId = profile.remoteId().empty() ? there : profile.remoteId();
    const bool shared = !profile.presharedKey().text.empty();
    const std::string auth = shared ? "psk" : "pubkey";

    Settings settings;
    settings.name = request.connectionName();
    Json local = {{"auth", auth}, {"id", localId}}, remote = {{"auth", auth}, {"id", remoteId}};
    if (shared) {
        settings.shared = {{"id", settings.name},
                           {"type", "IKE"},
                           {"data", profile.presharedKey().text},
                           {"owners", Json::array({localId, remoteId})}};
    } else {
        settings.key = {{"type", "any"}, {"data", readFile(profile.privateKey())}};
        local["certs"] = Json::array({readFile(profile.certificate())});
        for (const std::string& file : profile.authority())
            remote["cacerts"].push_back(readFile(file));
    }
    const Json child = {{"mode", espBy == EspBy::kernel ? "transport" : "tunnel"},
                        {"local_ts", Json::array({here + udp})},
                        {"remote_ts", Json::array({there + udp})},
                        {"esp_proposals", listOf(profile.espProposals())},
                        {"reqid", std::to_string(reqid)},
                        {"rekey_time", seconds(profile.espRekeyTime())},
                        {"start_action", "none"},
                        {"close_action", "none"},
                        {"dpd_action", "clear"}};
    Json connection = {
        {"version", "2"},
        {"local_addrs", Json::array({here})},
        {"remote_addrs", Json::array({there})},
        {"proposals", listOf(profile.proposals())},
        {"rekey_time", seconds(profile.rekeyTime())},
        {"dpd_delay", seconds(profile.dpdDelay())},
        {"mobike", "no"},
        {"encap", profile.encapsulateAlways() ? "yes" : "no"},
        // Several paths with the same identities must not replace each other.
        {"unique", profile.localId().empty() && profile.remoteId().empty() ? "no" : "never"},
        {"local", local},
        {"remote", remote}};
    settings.child = childName({connection, child});
    connection["children"] = {{settings.child, child}};
    settings.connection = {{settings.name, std::move(connection)}};
    return settings;
}

}  // namespace Agent::Linux

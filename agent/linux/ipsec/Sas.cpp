#include "agent/linux/ipsec/Sas.h"

#include <charconv>
#include <utility>

#include "agent/linux/ipsec/Vici.h"

namespace Agent::Linux {

namespace {

using Vici::number;
using Vici::text;

Netz::IpGenAddr addressIn(const Json& section, const char* name) {
    return Netz::IpGenAddr::parse(text(section, name)).value_or(Netz::IpGenAddr());
}

// "AES_GCM_16-256/MODP_2048", as swanctl writes it.
std::string cipherOf(const Json& section) {
    std::string cipher = text(section, "encr-alg");
    const auto add = [&](const char* separator, const char* name) {
        if (const std::string part = text(section, name); !part.empty()) cipher += separator + part;
    };
    add("-", "encr-keysize");
    add("/", "integ-alg");
    add("/", "dh-group");
    return cipher;
}

uint32_t spiIn(const Json& section, const char* name) {
    const std::string written = text(section, name);
    uint32_t spi = 0;
    std::from_chars(written.data(), written.data() + written.size(), spi, 16);
    return spi;
}

ChildSa childOf(const Json& section) {
    return {.name = text(section, "name"),
            .id = static_cast<uint32_t>(number(section, "uniqueid")),
            .reqid = static_cast<uint32_t>(number(section, "reqid")),
            .state = text(section, "state"),
            .cipher = cipherOf(section),
            .bytesIn = number(section, "bytes-in"),
            .bytesOut = number(section, "bytes-out"),
            .rekeyIn = number(section, "rekey-time"),
            .spiIn = spiIn(section, "spi-in"),
            .spiOut = spiIn(section, "spi-out")};
}

}  // namespace

std::vector<IkeSa> sasOf(const Json& message) {
    std::vector<IkeSa> sas;
    for (const auto& [name, section] : message.items()) {
        if (!section.is_object()) continue;
        IkeSa& sa = sas.emplace_back();
        sa.name = name;
        sa.id = static_cast<uint32_t>(number(section, "uniqueid"));
        sa.state = text(section, "state");
        sa.local = addressIn(section, "local-host");
        sa.remote = addressIn(section, "remote-host");
        sa.remoteId = text(section, "remote-id");
        sa.spi = text(section, "initiator-spi");
        sa.initiator = text(section, "initiator") == "yes";
        sa.natHere = text(section, "nat-local") == "yes";
        sa.natThere = text(section, "nat-remote") == "yes";
        sa.answered = text(section, "responder-spi").find_first_not_of('0') != std::string::npos;
        const auto tasks = section.find("tasks-active");
        sa.waits = tasks != section.end() && tasks->is_array() && !tasks->empty();
        if (const auto children = section.find("child-sas");
            children != section.end() && children->is_object())
            for (const auto& [key, child] : children->items())
                sa.children.push_back(childOf(child));
    }
    return sas;
}

std::string reasonIn(std::string_view log) {
    static constexpr std::pair<std::string_view, const char*> reasons[] = {
        {"received AUTHENTICATION_FAILED", "authentication failed: the peer refuses this side"},
        {"MAC mismatched", "authentication failed: the peer has another pre-shared key"},
        {"no shared key found", "authentication failed: no pre-shared key for these identities"},
        {"no private key found", "authentication failed: no private key for the certificate"},
        {"subject certificate invalid", "authentication failed: a certificate is not valid now"},
        {"issuer certificate invalid",
         "authentication failed: an authority's certificate is not valid now"},
        {"no issuer certificate found",
         "authentication failed: the authority of the peer's certificate is unknown"},
        {"no trusted", "authentication failed: the peer's certificate is not trusted"},
        {"signature validation failed", "authentication failed: the peer's signature is wrong"},
        {"constraint check failed",
         "authentication failed: the peer has another identity or authority than expected"},
        {"NO_PROPOSAL_CHOSEN notify, no CHILD_SA", "no proposal chosen for ESP"},
        {"no acceptable proposal found", "no proposal chosen for ESP"},
        {"received NO_PROPOSAL_CHOSEN",
         "no proposal chosen: the peer has other proposals, or no connection to this side"},
        {"received proposals unacceptable", "no proposal chosen: the peer has other proposals"},
        {"received INVALID_KE_PAYLOAD", ""},
        {"received TS_UNACCEPTABLE", "the peer refuses the traffic selectors"},
        {"received NO_ADDITIONAL_SAS", "the peer refuses another CHILD_SA"},
        {"unable to install", "the kernel refuses the security association"},
        {"giving up after", "the peer does not answer"},
        {"peer not responding", "the peer does not answer"},
        {"received DELETE for", "deleted by the peer"},
        {"error writing to socket", "IKE packets cannot be sent"},
        {"unable to resolve", "the peer's address cannot be used"},
    };
    for (const auto& [phrase, reason] : reasons)
        if (log.find(phrase) != log.npos) return reason;
    return {};
}

bool saysNatHere(std::string_view log) {
    return log.find("local host is behind NAT") != log.npos;
}

}  // namespace Agent::Linux

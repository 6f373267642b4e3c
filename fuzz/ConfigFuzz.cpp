// Configuration files, of path selection or of forwarding: what is accepted can be applied to
// another configuration, which then is the same and would be accepted again.
#include <algorithm>

#include "agent/model/DatumJson.h"
#include "agent/model/Transaction.h"

namespace {

template <class Config>
std::string textOf(const Config& config) {
    return Agent::dumpLine(Agent::toJson(Vel::toDatum(config), Agent::Secrets::shown));
}

// Without order, and without the versions that an application may raise.
void normalise(nlohmann::json& json) {
    if (!json.is_structured()) return;
    if (json.is_object()) json.erase("configVersion");
    for (auto& part : json) normalise(part);
    if (json.is_array()) std::sort(json.begin(), json.end());
}
template <class Config>
nlohmann::json contentOf(const Config& config) {
    auto json = nlohmann::json::parse(textOf(config));
    normalise(json);
    return json;
}

// What a text is read as, or null if it is refused.
template <class Read>
auto accepted(Read read, const std::string& text) -> decltype(read(text)) {
    try {
        return read(text);
    } catch (const Agent::JsonError& error) {
        VEL_ASSERT(std::string_view(error.what()).starts_with("line "),
                   "a refusal without its place");
        return nullptr;
    }
}

template <class Config, class Read>
void same(const Config& running, const nlohmann::json& content, Read read) {
    VEL_ASSERT(contentOf(running) == content, "applied, it is another configuration");
    VEL_ASSERT(contentOf(*read(textOf(running))) == content,
               "read again, it is another configuration");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string before = Agent::readFile(NAV_EXAMPLES "/linux/config.json"),
                             forwardingBefore =
                                 Agent::readFile(NAV_EXAMPLES "/linux/forwarding.json");
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto paths = accepted(Agent::readConfigText, text);
    const auto forwarding = accepted(Agent::readForwardingText, text);
    if (!paths && !forwarding) return 0;
    const auto runningPaths = Agent::readConfigText(before);
    const auto runningForwarding = Agent::readForwardingText(forwardingBefore);
    const auto content = contentOf(paths ? *paths : *runningPaths);
    const auto forwardingContent = contentOf(forwarding ? *forwarding : *runningForwarding);
    Agent::Transaction transaction({*runningPaths, runningForwarding.get()}, {paths, forwarding});
    transaction.check(nullptr);
    transaction.apply();
    same(*runningPaths, content, Agent::readConfigText);
    same(*runningForwarding, forwardingContent, Agent::readForwardingText);
    return 0;
}

// Configuration files: what is accepted can be applied to another configuration, which then is the
// same and would be accepted again.
#include <algorithm>

#include "agent/model/Transaction.h"

namespace {

std::string textOf(Nav::NavCliConfig& config) {
    const Agent::Tree tree({Agent::Root::of(Agent::configName, config)});
    return Agent::dumpLine(tree.get(std::string("/") + Agent::configName));
}

// Without order, and without the versions that an application may raise.
void normalise(nlohmann::json& json) {
    if (!json.is_structured()) return;
    if (json.is_object()) json.erase("configVersion");
    for (auto& part : json) normalise(part);
    if (json.is_array()) std::sort(json.begin(), json.end());
}
nlohmann::json contentOf(Nav::NavCliConfig& config) {
    auto json = nlohmann::json::parse(textOf(config));
    normalise(json);
    return json;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string before = Agent::readFile(NAV_EXAMPLES "/branch/branch.json");
    Agent::ConfigPtr wanted;
    try {
        wanted = Agent::readConfigText({reinterpret_cast<const char*>(data), size});
    } catch (const Agent::JsonError& error) {
        VEL_ASSERT(std::string_view(error.what()).starts_with("line "),
                   "a refusal without its place");
        return 0;
    }
    const auto content = contentOf(*wanted);
    const Agent::ConfigPtr running = Agent::readConfigText(before);
    Agent::Transaction transaction(*running, Agent::copyConfig(*wanted));
    transaction.check(nullptr);
    transaction.apply();
    VEL_ASSERT(contentOf(*running) == content, "applied, it is another configuration");
    VEL_ASSERT(contentOf(*Agent::readConfigText(textOf(*running))) == content,
               "read again, it is another configuration");
    return 0;
}

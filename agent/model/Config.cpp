#include "agent/model/ReadConfig.h"

namespace Agent {

using Nav::NavCliConfig;
using Vel::Attribute;
using Vel::Entity;

ConfigPtr readConfig(const Json& json) {
    auto config = Vel::make<NavCliConfig>(configName);
    assign(*config, configName, json);
    validateConfig(*config);
    return config;
}

ConfigPtr readConfigText(const std::string& text) {
    return readText(text, readConfig);
}

ConfigPtr copyConfig(const NavCliConfig& config) {
    auto copy = Vel::make<NavCliConfig>(config.name());
    addMissing(*copy, config);
    return copy;
}

ForwardingPtr readForwarding(const Json& json) {
    auto config = makeForwarding();
    assign(*config, forwardingName, json);
    validateForwarding(*config);
    return config;
}

ForwardingPtr readForwardingText(const std::string& text) {
    return readText(text, readForwarding);
}

ForwardingPtr copyForwarding(const ForwardingConfig& config) {
    auto copy = makeForwarding();
    addMissing(*copy, config);
    return copy;
}

void addMissing(Entity& to, const Entity& from) {
    const Vel::TypeDescriptor& type = to.type();
    for (size_t i = 0; i < type.count; ++i) {
        const Attribute& a = type.attributes[i];
        if (a.kind == Attribute::Kind::plain) a.set(to, a.get(from));
        if (a.kind == Attribute::Kind::child) addMissing(*a.find(to, {}), *a.find(from, {}));
        if (!a.keyed()) continue;
        for (const std::string& key : a.keys(from)) {
            if (a.kind != Attribute::Kind::collection) {
                a.setAt(to, key, *a.getAt(from, key));
                continue;
            }
            const Entity& wanted = *a.find(from, key);
            if (Entity* present = a.find(to, key))
                addMissing(*present, wanted);
            else
                a.create(to, key, [&](Entity& made) { addMissing(made, wanted); });
        }
    }
}

}  // namespace Agent

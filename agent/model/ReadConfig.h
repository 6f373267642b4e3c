// How the text of a configuration becomes an entity. For the reader of each configuration.
#pragma once

#include <string>

#include "agent/model/Config.h"

namespace Agent {

// What `read` makes of a text. A TreeError becomes a JsonError with the line.
template <class Read>
auto readText(const std::string& text, Read read) {
    if (text.size() > maxConfigBytes)
        throw JsonError("line 1: a configuration has at most " + std::to_string(maxConfigBytes) +
                        " bytes, this has " + std::to_string(text.size()));
    const Json json = parseJson(text, Comments::ignored);
    try {
        return read(json);
    } catch (const TreeError& error) {
        throw JsonError("line " + std::to_string(lineOf(text, pointerTo(error.place(), json))) +
                        ": " + error.what());
    }
}

template <class Config>
void assign(Config& config, const char* name, const Json& json) {
    Tree({Root::of(name, config)}).set(std::string("/") + name, json);
}

}  // namespace Agent

#include "navctl/Completion.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <string_view>

#include "client/ControlClient.h"
#include "platform/vel/Value.h"

namespace Navctl {

using Agent::Json;

// Readline splits words at ':' and '=', which addresses contain, and replaces only the text after
// the last split: hence the prefix is removed from each answer.
const char* const bashScript = R"(_navctl() {
    local IFS=$'\n' line=${COMP_LINE:0:COMP_POINT} word head
    word=${line##* }
    head=${word%"${word##*[:=]}"}
    local words
    IFS=$' \t' read -r -a words <<<"$line"
    [[ $line == *' ' ]] && words+=("")
    COMPREPLY=($(navctl __complete -- "${words[@]:1}" 2>/dev/null))
    COMPREPLY=("${COMPREPLY[@]#"$head"}")
}
complete -o nospace -o default -F _navctl navctl
)";

// (Q) takes the quotes off a word, and compadd puts them on again: keys stand in brackets.
const char* const zshScript = R"(#compdef navctl
_navctl() {
    local -a answers=("${(@f)$(navctl __complete -- "${(@Q)words[2,CURRENT]}" 2>/dev/null)}")
    compadd -S '' -- $answers
}
if [[ $funcstack[1] == _navctl ]]; then _navctl "$@"; else compdef _navctl navctl; fi
)";

namespace {

bool exists(Client::ControlClient& client, const std::string& path) {
    try {
        client.get(path);
        return true;
    } catch (const Client::Refused&) {
        return false;
    }
}

// The position of the last step of an unfinished path: its '/' or '[' outside any finished key.
size_t lastStep(std::string_view path) {
    size_t step = 0;
    bool inKey = false;
    for (size_t i = 0; i < path.size(); ++i) {
        if (path[i] == '\\') {
            ++i;
        } else if (inKey) {
            inKey = path[i] != ']';
        } else if (path[i] == '[' || path[i] == '/') {
            step = i;
            inKey = path[i] == '[';
        }
    }
    return step;
}

// The path of an element. Names are escaped in a path, while the texts of keys with several fields
// are so already; the agent knows which of the two the key is.
std::string element(Client::ControlClient& client, const std::string& parent,
                    const std::string& key) {
    const std::string asText = parent + "[" + key + "]";
    if (key.find_first_of(",]\\") == key.npos) return asText;
    std::string escaped;
    Vel::appendEscapedKey(escaped, key);
    escaped = parent + "[" + escaped + "]";
    return exists(client, escaped) ? escaped : asText;
}

std::vector<std::string> paths(const std::string& word, const std::string& runDir) {
    std::vector<std::string> result;
    if (!word.empty() && word[0] != '/') return result;
    const size_t step = lastStep(word);
    const std::string parent = word.substr(0, step);
    Client::ControlClient client(runDir);
    if (parent.empty()) {
        for (const Json& root : client.get("/")) result.push_back("/" + root.get<std::string>());
        return result;
    }
    const Json value = client.get(parent);
    if (value.is_array()) {
        for (const Json& key : value) {
            if (key.is_string()) result.push_back(element(client, parent, key.get<std::string>()));
        }
    }
    if (!value.is_object() || value.empty()) return result;
    // Entities and collections are both objects, but only a collection's members are reached by
    // key.
    const bool isCollection = exists(client, element(client, parent, value.begin().key()));
    for (const auto& [name, member] : value.items())
        result.push_back(isCollection ? element(client, parent, name) : parent + "/" + name);
    return result;
}

// Arguments that are one of the names in an explanation, with their place there.
constexpr const char* namesIn[][3] = {{"NAME", "paths", "path"},
                                      {"SITE", "paths", "site"},
                                      {"APPLICATION", "applications", "application"}};

const char* optionOfNames(const CLI::App& command) {
    for (const auto& [option, list, member] : namesIn)
        if (command.get_option_no_throw(option)) return option;
    return nullptr;
}

std::vector<std::string> names(std::string_view wanted, const std::string& runDir) {
    const Json answer = Client::ControlClient(runDir).request({{"op", "explain"}}).at("value");
    std::vector<std::string> result;
    for (const auto& [option, list, member] : namesIn)
        if (option == wanted)
            for (const Json& row : answer.at(list))
                if (row.at(member).is_string()) result.push_back(row.at(member));
    return result;
}

}  // namespace

std::vector<std::string> complete(const CLI::App& app, const std::vector<std::string>& words,
                                  std::string runDir) {
    if (words.empty()) return {};
    const CLI::App* command = &app;
    size_t arguments = 0;
    for (size_t i = 0; i + 1 < words.size(); ++i) {
        if (words[i] == "--run-dir" && i + 2 < words.size()) {
            runDir = words[++i];
        } else if (const auto found = command->get_subcommands(
                       [&](const CLI::App* each) { return each->get_name() == words[i]; });
                   !found.empty()) {
            command = found.front();
        } else if (!words[i].starts_with("-")) {
            ++arguments;
        }
    }
    const std::string& word = words.back();
    std::vector<std::string> result;
    if (word.starts_with("-")) {
        for (const CLI::App* each : {command, &app}) {
            for (const CLI::Option* option : each->get_options()) {
                for (const std::string& name : option->get_lnames()) result.push_back("--" + name);
            }
            if (each == &app) break;
        }
    } else if (const auto* path = command->get_option_no_throw("PATH"); path && arguments == 0) {
        result = paths(word, runDir);
    } else if (const char* option = optionOfNames(*command); option && arguments == 0) {
        result = names(option, runDir);
    } else {
        for (const CLI::App* each : command->get_subcommands({})) {
            if (!each->get_name().starts_with("_")) result.push_back(each->get_name());
        }
    }
    std::erase_if(result, [&](const std::string& each) { return !each.starts_with(word); });
    std::sort(result.begin(), result.end());
    result.erase(std::unique(result.begin(), result.end()), result.end());
    return result;
}

}  // namespace Navctl

// The views of the show commands, built from the agent's state.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "client/ControlClient.h"
#include "navctl/TextTable.h"

namespace Navctl {

// A view of an answer from command.sock.
struct TextView {
    std::string name, word, description;
    TextTable (*table)(const Json& answer);
};

// A view built from the tree.
struct TreeView {
    std::string name, description;
    TextTable (*table)(Client::ControlClient& client);
};

const std::vector<TextView>& textViews();
const std::vector<TreeView>& treeViews();

// The tables of `show forwarding`, each under its heading, from the agent's report.
std::vector<std::pair<std::string, TextTable>> forwardingTables(const Json& report);

// The agent's text as JSON; throws Refused if the agent answered with a message, or with an invalid
// text.
Json parseShowText(const std::string& text);

}  // namespace Navctl

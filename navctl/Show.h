// The views of the show commands: what an operator asks for, put together from what the agent
// tells.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "client/ControlClient.h"
#include "navctl/Table.h"

namespace Navctl {

// A view on an answer of command.sock.
struct TextView {
    std::string name, word, description;
    Table (*table)(const Json& answer);
};

// A view put together from the tree.
struct TreeView {
    std::string name, description;
    Table (*table)(Client::ControlClient& client);
};

const std::vector<TextView>& textViews();
const std::vector<TreeView>& treeViews();

// The tables of `show forwarding`, each under its heading, from the agent's report.
std::vector<std::pair<std::string, Table>> forwardingTables(const Json& report);

// The agent's text as JSON; Refused when it answered with a message, or with what is no literal.
Json parseShowText(const std::string& text);

}  // namespace Navctl

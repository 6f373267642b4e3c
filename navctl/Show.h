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

using Headed = std::vector<std::pair<std::string, TextTable>>;  // tables under their headings

// The tables of `show forwarding`, from the agent's report.
Headed forwardingTables(const Json& report);
// The tables of `explain`, from the agent's answer.
Headed explainTables(const Json& answer);
// A row for each object of an answer; the columns are the members of the first.
TextTable rowTable(const Json& rows);

// Rows of changes with one member more, after "by": the name of the user who made the change, null
// if that is nobody whom this machine knows. The agent itself does not look up names, which may
// take time.
Json withUsers(const Json& rows);

// The table of `show quality`, from the agent's rows.
TextTable qualityTable(const Json& rows);

// The agent's text as JSON; throws Refused if the agent answered with a message, or with an invalid
// text.
Json parseShowText(const std::string& text);

}  // namespace Navctl

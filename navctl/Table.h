// What the show commands print: rows of values under named columns, as an aligned table or as JSON.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "agent/base/Json.h"

namespace Navctl {

using Agent::Json;

struct Table {
    std::vector<std::string> columns;  // "path group": PATH GROUP in a table, pathGroup in JSON
    std::vector<std::vector<Agent::Json>> rows;
};

// Columns as wide as their widest cell. Nothing that a name holds reaches the terminal as a control
// character; a value that is not there prints as "-".
void printTable(std::ostream& out, const Table& table, bool colours);

// An array with an object for each row.
Agent::Json tableJson(const Table& table);

}  // namespace Navctl

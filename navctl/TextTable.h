// The output of the show commands: rows of values under named columns, as an aligned table or as
// JSON.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "agent/base/Json.h"

namespace Navctl {

using Agent::Json;

struct TextTable {
    std::vector<std::string> columns;  // "path group": PATH GROUP in a table, pathGroup in JSON
    std::vector<std::vector<Agent::Json>> rows;
};

// Columns are as wide as their widest cell, unless lines would be longer than `limit` characters
// (0: no limit): then the cells of the widest columns are wrapped. Control characters in names are
// not written to the terminal; a missing value is printed as "-", and a time of the agent as local
// time.
void printTable(std::ostream& out, const TextTable& table, bool colours, size_t limit = 0);

// An array with an object for each row.
Agent::Json tableJson(const TextTable& table);

}  // namespace Navctl

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
    // "path group" is PATH GROUP in a table, pathGroup in JSON. A unit, as in "latency (ms)", is
    // in tables only.
    std::vector<std::string> columns;
    std::vector<std::vector<Agent::Json>> rows;
    // Columns that a table goes without on a terminal too narrow for all, the first one first.
    std::vector<std::string> minor = {};
};

// How a table is printed.
struct Layout {
    bool colours = false;
    // Characters of a line; 0: any number. A table that is wider leaves out columns in which no
    // row has a value, the date of times of today, then minor columns, and wraps cells, at last
    // within words. Only where no column has more than eight characters, lines are longer.
    size_t width = 0;
    // Marks what has changed since this table was printed: each line begins with '+' for a new
    // row, '*' for one with other values, '-' for one that has gone, or a blank, and with colours
    // the changed cells are reversed.
    const TextTable* before = nullptr;
};

// Control characters in names are not written to the terminal; a missing value is printed as "-",
// and a time of the agent as local time.
void printTable(std::ostream& out, const TextTable& table, const Layout& layout);

// An array with an object for each row.
Agent::Json tableJson(const TextTable& table);

}  // namespace Navctl

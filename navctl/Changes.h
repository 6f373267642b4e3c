// What has changed in a table since it was printed before.
#pragma once

#include <string>
#include <vector>

namespace Navctl {

using Cells = std::vector<std::string>;

struct MarkedRow {
    Cells cells;
    char sign = ' ';            // '+' new, '*' changed, '-' gone
    std::vector<bool> changed;  // which cells; empty unless the sign is '*'
};

// The rows of `now` in their order, then those that have gone. A row is a changed one of `before`
// rather than a new one if their first cells are equal or, where one of these is missing, most of
// their cells.
std::vector<MarkedRow> compare(const std::vector<Cells>& before, const std::vector<Cells>& now);

}  // namespace Navctl

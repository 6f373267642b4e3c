#include "navctl/Changes.h"

#include <algorithm>
#include <list>

namespace Navctl {

namespace {

size_t equalCells(const Cells& one, const Cells& other) {
    size_t count = 0;
    for (size_t i = 0; i < std::min(one.size(), other.size()); ++i) count += one[i] == other[i];
    return count;
}

// How alike two rows are; 0: not the same row.
size_t likeness(const Cells& before, const Cells& now) {
    if (before.empty() || before.size() != now.size()) return 0;
    const auto isName = [](const std::string& cell) { return cell != "-" && cell != " "; };
    const size_t count = equalCells(before, now);
    if (isName(before[0]) && isName(now[0])) return before[0] == now[0] ? count : 0;
    return 2 * count > now.size() ? count : 0;
}

void markChange(MarkedRow& row, std::list<Cells>& left) {
    const auto best = std::ranges::max_element(
        left, {}, [&row](const Cells& each) { return likeness(each, row.cells); });
    if (best == left.end() || likeness(*best, row.cells) == 0) {
        row.sign = '+';
        return;
    }
    row.sign = '*';
    for (size_t i = 0; i < row.cells.size(); ++i) row.changed.push_back(row.cells[i] != (*best)[i]);
    left.erase(best);
}

}  // namespace

std::vector<MarkedRow> compare(const std::vector<Cells>& before, const std::vector<Cells>& now) {
    std::list<Cells> left(before.begin(), before.end());
    std::vector<MarkedRow> rows;
    for (const Cells& cells : now) {
        rows.push_back({cells, '?', {}});
        const auto same = std::ranges::find(left, cells);
        if (same == left.end()) continue;
        rows.back().sign = ' ';
        left.erase(same);
    }
    for (MarkedRow& row : rows)
        if (row.sign == '?') markChange(row, left);
    for (Cells& cells : left) rows.push_back({std::move(cells), '-', {}});
    return rows;
}

}  // namespace Navctl

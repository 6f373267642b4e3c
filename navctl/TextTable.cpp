#include "navctl/TextTable.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <ctime>
#include <string_view>
#include <utility>

#include "navctl/Changes.h"

namespace Navctl {

using Agent::Json;

namespace {

constexpr size_t gap = 2;  // blanks between columns

constexpr const char* dayFormat = "%F ";
constexpr const char* clockFormat = "%T";

std::string timeText(const std::tm& parts, const std::string& format) {
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), format.c_str(), &parts);
    return text.data();
}

// A time of the agent (RFC 3339, UTC) as the operator's clock shows it, to the second.
std::string localTime(const std::string& text) {
    std::tm parts{};
    const char* const end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (!end || !text.ends_with('Z')) return text;
    const time_t seconds = timegm(&parts);
    localtime_r(&seconds, &parts);
    return timeText(parts, std::string(dayFormat) + clockFormat);
}

// What localTime() writes before the time of day, today.
std::string today() {
    const time_t now = std::time(nullptr);
    std::tm parts{};
    localtime_r(&now, &parts);
    return timeText(parts, dayFormat);
}

std::string cellText(const Json& value) {
    if (value.is_null()) return "-";
    if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
    if (value.is_array()) {
        std::string text;
        for (const Json& part : value) text += (text.empty() ? "" : ", ") + cellText(part);
        return text.empty() ? "-" : text;
    }
    if (!value.is_string()) return Agent::dumpLine(value);
    std::string text = localTime(value.get<std::string>());
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
    return text.empty() ? "-" : text;
}

std::vector<Cells> cellsOf(const TextTable& table) {
    std::vector<Cells> rows;
    for (const auto& row : table.rows) {
        Cells& cells = rows.emplace_back();
        for (const Json& value : row) cells.push_back(cellText(value));
        cells.resize(table.columns.size(), "-");
    }
    return rows;
}

// The number of characters, taking the bytes as UTF-8 (RFC 3629: continuation bytes are 10xxxxxx).
size_t width(std::string_view text) {
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

size_t longestWord(std::string_view text) {
    size_t longest = 0;
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find(' ', start), text.size());
        longest = std::max(longest, width(text.substr(start, end - start)));
        start = end + 1;
    }
    return longest;
}

// Units keep their letters.
std::string heading(std::string column) {
    const auto unit = std::find(column.begin(), column.end(), '(');
    std::transform(column.begin(), unit, column.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return column;
}

std::string memberName(const std::string& column) {
    std::string name;
    for (size_t i = 0; i < column.size() && column[i] != '('; ++i) {
        if (column[i] == ' ') continue;
        const bool capital = i > 0 && column[i - 1] == ' ';
        const unsigned char letter = static_cast<unsigned char>(column[i]);
        name += static_cast<char>(capital ? std::toupper(letter) : letter);
    }
    return name;
}

// The colours of states: green for up, red for down, yellow for pending.
const char* colourOf(const std::string& text) {
    const auto isOneOf = [&text](const std::initializer_list<const char*>& words) {
        return std::ranges::count(words, text) != 0;
    };
    if (isOneOf({"Estab", "Ipsec Estab", "established", "alive", "up", "resolved", "running"}))
        return "\x1b[32m";
    if (isOneOf({"pending", "connecting", "unconfirmed", "not checked"}) ||
        text.ends_with("Pending"))
        return "\x1b[33m";
    if (isOneOf({"Unknown", "unresolved", "down", "dead", "failed", "absent"})) return "\x1b[31m";
    return nullptr;
}

// The rows of a table below its heading, and the columns that are printed of them.
struct Grid {
    std::vector<MarkedRow> rows;  // the first is the heading
    std::vector<size_t> columns;

    template <class Measure>
    std::vector<size_t> widths(Measure measure) const {
        std::vector<size_t> result;
        for (const size_t column : columns) {
            size_t& widest = result.emplace_back(0);
            for (const MarkedRow& row : rows) widest = std::max(widest, measure(row.cells[column]));
        }
        return result;
    }
    bool hasValue(size_t column) const {
        return rows.size() == 1 || std::any_of(rows.begin() + 1, rows.end(), [&](const auto& row) {
                   return row.cells[column] != "-";
               });
    }
};

size_t total(const std::vector<size_t>& widths) {
    size_t sum = widths.empty() ? 0 : gap * (widths.size() - 1);
    for (const size_t each : widths) sum += each;
    return sum;
}

// Takes from the widest columns, but not below the floor of each, until a line fits.
void narrow(std::vector<size_t>& widths, const std::vector<size_t>& floors, size_t limit) {
    for (size_t sum = total(widths); sum > limit; --sum) {
        size_t* widest = nullptr;
        for (size_t i = 0; i < widths.size(); ++i)
            if (widths[i] > floors[i] && (!widest || widths[i] > *widest)) widest = &widths[i];
        if (!widest) return;
        --*widest;
    }
}

// The widths of the columns, of which it takes away those that are not worth a line too long.
std::vector<size_t> fit(Grid& grid, const TextTable& table, size_t limit) {
    constexpr size_t narrowest = 8;
    const auto tooWide = [&](auto measure) { return total(grid.widths(measure)) > limit; };
    if (limit == 0 || !tooWide(width)) return grid.widths(width);
    std::erase_if(grid.columns, [&grid](size_t column) { return !grid.hasValue(column); });
    const std::string date = today();
    if (tooWide(width))
        for (MarkedRow& row : grid.rows)
            for (std::string& cell : row.cells)
                if (cell.starts_with(date)) cell.erase(0, date.size());
    for (const std::string& name : table.minor) {
        if (!tooWide(longestWord)) break;
        std::erase_if(grid.columns, [&](size_t column) { return table.columns[column] == name; });
    }
    std::vector<size_t> widths = grid.widths(width);
    narrow(widths, grid.widths(longestWord), limit);
    narrow(widths, std::vector(widths.size(), narrowest), limit);
    return widths;
}

// A text in lines of at most `limit` characters: between words, or within one that is longer.
std::vector<std::string> wrapped(const std::string& text, size_t limit) {
    std::vector<std::string> lines;
    for (size_t start = 0; start < text.size() || lines.empty();) {
        size_t end = start, space = text.npos;
        for (size_t taken = 0; end < text.size(); ++end) {
            if ((text[end] & 0xc0) != 0x80 && taken++ == limit) break;
            if (text[end] == ' ' && end > start) space = end;
        }
        if (end < text.size() && text[end] == ' ') space = end;
        if (end < text.size() && space != text.npos) end = space;
        lines.push_back(text.substr(start, end - start));
        start = end + (end < text.size() && text[end] == ' ');
    }
    return lines;
}

// How a cell begins on a terminal with colours.
std::string styleOf(const MarkedRow& row, size_t column, bool isHeading) {
    if (isHeading) return "\x1b[1m";
    const char* colour = colourOf(row.cells[column]);
    const bool changed = row.sign == '+' || (row.sign == '*' && row.changed[column]);
    return std::string(colour ? colour : "") + (changed ? "\x1b[7m" : "");
}

void printRow(std::ostream& out, const Grid& grid, const MarkedRow& row,
              const std::vector<size_t>& widths, const Layout& layout) {
    std::vector<std::vector<std::string>> cells;
    size_t lines = 1;
    for (size_t i = 0; i < grid.columns.size(); ++i) {
        cells.push_back(wrapped(row.cells[grid.columns[i]], widths[i]));
        lines = std::max(lines, cells[i].size());
    }
    for (size_t line = 0; line < lines; ++line) {
        size_t blanks = 0;  // nothing is padded at the end of a line
        if (layout.before) out << row.sign << ' ';
        for (size_t i = 0; i < cells.size(); ++i) {
            const std::string text = line < cells[i].size() ? cells[i][line] : "";
            if (!text.empty()) {
                const std::string style =
                    layout.colours ? styleOf(row, grid.columns[i], &row == &grid.rows[0]) : "";
                out << std::string(std::exchange(blanks, 0), ' ') << style << text
                    << (style.empty() ? "" : "\x1b[0m");
            }
            blanks += widths[i] - width(text) + gap;
        }
        out << "\n";
    }
}

}  // namespace

void printTable(std::ostream& out, const TextTable& table, const Layout& layout) {
    Grid grid;
    MarkedRow headings;
    for (size_t i = 0; i < table.columns.size(); ++i) {
        grid.columns.push_back(i);
        headings.cells.push_back(heading(table.columns[i]));
    }
    const std::vector<Cells> now = cellsOf(table);
    grid.rows = compare(layout.before ? cellsOf(*layout.before) : now, now);
    grid.rows.insert(grid.rows.begin(), std::move(headings));
    const size_t signs = layout.before ? 2 : 0;
    const size_t limit = layout.width == 0 ? 0 : std::max(layout.width, signs + 1) - signs;
    const std::vector<size_t> widths = fit(grid, table, limit);
    for (const MarkedRow& row : grid.rows) printRow(out, grid, row, widths, layout);
}

Json tableJson(const TextTable& table) {
    Json result = Json::array();
    for (const auto& row : table.rows) {
        Json object = Json::object();
        for (size_t i = 0; i < row.size(); ++i) object[memberName(table.columns[i])] = row[i];
        result.push_back(std::move(object));
    }
    return result;
}

}  // namespace Navctl

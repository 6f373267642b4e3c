#include "navctl/TextTable.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <ctime>
#include <utility>

namespace Navctl {

using Agent::Json;

namespace {

// A time of the agent (RFC 3339, UTC) as the operator's clock shows it, to the second.
std::string localTime(const std::string& text) {
    std::tm parts{};
    const char* const end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    if (!end || !text.ends_with('Z')) return text;
    const time_t seconds = timegm(&parts);
    std::array<char, 32> local{};
    localtime_r(&seconds, &parts);
    std::strftime(local.data(), local.size(), "%F %T", &parts);
    return local.data();
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

// The number of characters, taking the bytes as UTF-8 (RFC 3629: continuation bytes are 10xxxxxx).
size_t width(const std::string& text) {
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

std::string heading(std::string column) {
    std::transform(column.begin(), column.end(), column.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return column;
}

std::string memberName(const std::string& column) {
    std::string name;
    for (size_t i = 0; i < column.size(); ++i) {
        if (column[i] == ' ') continue;
        const bool capital = i > 0 && column[i - 1] == ' ';
        const unsigned char letter = static_cast<unsigned char>(column[i]);
        name += static_cast<char>(capital ? std::toupper(letter) : letter);
    }
    return name;
}

// The colours of states: green for up, red for down, yellow for pending.
const char* colourOf(const std::string& text) {
    if (text == "Estab" || text == "Ipsec Estab" || text == "established" || text == "alive")
        return "\x1b[32m";
    if (text.ends_with("Pending") || text == "pending") return "\x1b[33m";
    return text == "Unknown" || text == "unresolved" || text == "down" || text == "dead" ||
                   text == "failed"
               ? "\x1b[31m"
               : nullptr;
}

// Takes from the widest columns until a line fits. A column keeps `narrowest` characters, so that
// only a terminal with no room for that breaks lines.
constexpr size_t narrowest = 8;
void fit(std::vector<size_t>& widths, size_t limit) {
    size_t total = widths.empty() ? 0 : 2 * (widths.size() - 1);
    for (const size_t each : widths) total += each;
    for (; total > limit; --total) {
        const auto widest = std::max_element(widths.begin(), widths.end());
        if (widest == widths.end() || *widest <= narrowest) return;
        --*widest;
    }
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

}  // namespace

void printTable(std::ostream& out, const TextTable& table, bool colours, size_t limit) {
    std::vector<std::vector<std::string>> rows(1);
    for (const std::string& column : table.columns) rows[0].push_back(heading(column));
    for (const auto& row : table.rows) {
        auto& cells = rows.emplace_back();
        for (const Json& value : row) cells.push_back(cellText(value));
    }
    std::vector<size_t> widths(table.columns.size());
    for (const auto& row : rows) {
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width(row[i]));
    }
    if (limit > 0) fit(widths, limit);
    for (const auto& row : rows) {
        std::vector<std::vector<std::string>> cells;
        size_t lines = 1;
        for (size_t i = 0; i < row.size(); ++i) {
            cells.push_back(wrapped(row[i], widths[i]));
            lines = std::max(lines, cells[i].size());
        }
        for (size_t line = 0; line < lines; ++line) {
            size_t blanks = 0;  // nothing is padded at the end of a line
            for (size_t i = 0; i < row.size(); ++i) {
                const std::string text = line < cells[i].size() ? cells[i][line] : "";
                const char* colour = &row == &rows[0] ? "\x1b[1m" : colourOf(row[i]);
                const bool coloured = colours && colour != nullptr && !text.empty();
                if (!text.empty()) out << std::string(std::exchange(blanks, 0), ' ');
                out << (coloured ? colour : "") << text << (coloured ? "\x1b[0m" : "");
                blanks += widths[i] - width(text) + 2;
            }
            out << "\n";
        }
    }
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

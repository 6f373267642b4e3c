#include "navctl/TextTable.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <ctime>

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

}  // namespace

void printTable(std::ostream& out, const TextTable& table, bool colours) {
    std::vector<std::vector<std::string>> lines(1);
    for (const std::string& column : table.columns) lines[0].push_back(heading(column));
    for (const auto& row : table.rows) {
        auto& line = lines.emplace_back();
        for (const Json& value : row) line.push_back(cellText(value));
    }
    std::vector<size_t> widths(table.columns.size());
    for (const auto& line : lines) {
        for (size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], width(line[i]));
    }
    for (const auto& line : lines) {
        for (size_t i = 0; i < line.size(); ++i) {
            const char* colour = &line == &lines[0] ? "\x1b[1m" : colourOf(line[i]);
            const bool coloured = colours && colour != nullptr;
            out << (coloured ? colour : "") << line[i] << (coloured ? "\x1b[0m" : "");
            // The last column is not padded.
            if (i + 1 < line.size()) out << std::string(widths[i] - width(line[i]) + 2, ' ');
        }
        out << "\n";
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

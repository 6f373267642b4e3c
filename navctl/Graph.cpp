#include "navctl/Graph.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <optional>
#include <vector>

namespace Navctl {

namespace {

constexpr int height = 5;

using Column = std::optional<double>;

std::vector<Column> columnsOf(const Agent::Json& values, size_t each) {
    std::vector<Column> columns((values.size() + each - 1) / each);
    // Counted from the newest, so that every column but the first is of `each` values.
    for (size_t age = 0; age < values.size(); ++age) {
        const Agent::Json& value = values[values.size() - 1 - age];
        Column& column = columns[columns.size() - 1 - age / each];
        if (value.is_number()) column = std::max(column.value_or(0), value.get<double>());
    }
    return columns;
}

std::string number(double value) {
    std::array<char, 32> text;
    std::snprintf(text.data(), text.size(), value < 10 ? "%.2f" : "%.0f", value);
    return text.data();
}

}  // namespace

std::string graph(const std::string& heading, const Agent::Json& values, double secondsEach,
                  size_t width) {
    static constexpr std::array blocks{" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    const size_t each = std::max<size_t>((values.size() + width - 1) / width, 1);
    const std::vector<Column> columns = columnsOf(values, each);
    double top = 0;
    for (const Column& column : columns) top = std::max(top, column.value_or(0));
    const Column now = columns.empty() ? Column() : columns.back();
    std::string text = heading + ": " + (now ? number(*now) : "not known") + "\n";
    for (int row = height - 1; row >= 0; --row) {
        const std::string label = row == height - 1 ? number(top) : row == 0 ? "0" : "";
        text += std::string(8 - std::min<size_t>(label.size(), 8), ' ') + label + " │";
        for (const Column& column : columns) {
            const double eighths = column && top > 0 ? std::ceil(*column / top * height * 8) : 0;
            const int least = column && row == 0 ? 1 : 0;
            text += blocks[size_t(std::clamp(int(eighths) - row * 8, least, 8))];
        }
        text += "\n";
    }
    const double seconds = secondsEach * double(values.size());
    std::array<char, 32> past;
    std::snprintf(past.data(), past.size(), seconds < 120 ? "-%.0f s" : "-%.0f min",
                  seconds < 120 ? seconds : seconds / 60);
    const size_t used = std::strlen(past.data()) + 3;
    return text + std::string(9, ' ') + "└" + past.data() +
           std::string(columns.size() > used ? columns.size() - used : 1, ' ') + "now\n";
}

}  // namespace Navctl

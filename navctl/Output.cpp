#include "navctl/Output.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <stdexcept>

namespace Navctl {

namespace {

Json versioned(const Json& object) {
    Json document = {{"schemaVersion", schemaVersion}};
    document.update(object);
    return document;
}

std::string clock() {
    const time_t now = std::time(nullptr);
    std::tm parts{};
    localtime_r(&now, &parts);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%T", &parts);
    return text.data();
}

}  // namespace

void Output::line(const std::string& line) {
    text() << line << "\n";
    flush();
}

void Output::value(const Json& value) {
    const int indent = json ? -1 : 2;
    text() << value.dump(indent, ' ', false, Json::error_handler_t::replace) << "\n";
}

void Output::document(const Json& json) {
    if (!json.is_array()) return value(versioned(json));
    Json rows = Json::array();
    for (const Json& row : json) rows.push_back(versioned(row));
    value(rows);
}

void Output::table(const TextTable& table, const std::string& heading) {
    if (json) return document(tableJson(table));
    const TextTable& before = isFirst_ ? table : before_[heading];
    if (!heading.empty()) text() << heading << "\n";
    if (table.columns.empty())
        text() << "none\n";
    else
        printTable(text(), table,
                   {streams_.colours, Terminal::now().columns, screen_ ? &before : nullptr});
    if (screen_) now_[heading] = table;
}

void Output::repeat(const std::string& title, const std::function<void()>& action) {
    if (!watch) return action();
    repeatItself(title, [&] {
        for (;; Screen::wait()) {
            action();
            endFrame();
        }
    });
}

void Output::repeatItself(const std::string& title, const std::function<void()>& action) {
    if (inPlace()) {
        title_ = title;
        terminal_.emplace(text().rdbuf(frame_.rdbuf()));
        screen_.emplace(*terminal_);
    } else if (watch) {
        // Every complete line has been written when an operator interrupts.
        std::signal(SIGINT, [](int) { _exit(done); });
    }
    action();
}

void Output::endFrame() {
    if (watch && !screen_ && !json) text() << "\n";  // between this and the next
    if (!screen_) return flush();
    const std::string head = title_ + "  " + clock() + "  + new  * changed  - gone";
    screen_->draw(colours() ? "\x1b[1m" + head + "\x1b[0m" : head, frame_.str());
    if (!*terminal_) throw std::runtime_error("the terminal cannot be written");
    frame_.str({});
    before_ = std::move(now_);
    now_.clear();
    isFirst_ = false;
}

void Output::flush() {
    if (!text().flush())
        throw std::runtime_error(std::string("standard output: ") + std::strerror(errno));
}

void Output::finish() {
    if (!screen_) return;
    screen_.reset();
    text().rdbuf(terminal_->rdbuf());
}

}  // namespace Navctl

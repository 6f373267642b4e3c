#include "navctl/Screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <string_view>
#include <utility>
#include <vector>

namespace Navctl {

namespace {

// The alternate screen, where lines that are too long are cut, without a cursor; and back.
constexpr std::string_view enter = "\x1b[?1049h\x1b[?7l\x1b[?25l";
constexpr std::string_view leave = "\x1b[0m\x1b[?25h\x1b[?7h\x1b[?1049l";

// Also called by signal handlers.
void send(std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(STDOUT_FILENO, text.data(), text.size());
        if (count <= 0) return;
        text.remove_prefix(static_cast<size_t>(count));
    }
}

// Ends or suspends the process as without a handler, with the terminal as it was. An interrupt is
// how operators end what repeats itself.
void giveUp(int signal) {
    send(leave);
    if (signal == SIGINT) _exit(0);
    std::signal(signal, SIG_DFL);
    raise(signal);
}

void resume(int) {
    send(enter);
    std::signal(SIGTSTP, giveUp);
}

// Only ends a wait.
void resized(int) {}

constexpr std::pair<int, void (*)(int)> handlers[] = {
    {SIGINT, giveUp},  {SIGTERM, giveUp}, {SIGHUP, giveUp},   {SIGQUIT, giveUp},
    {SIGTSTP, giveUp}, {SIGCONT, resume}, {SIGWINCH, resized}};

bool isMark(char first) {
    return first == '*' || first == '+' || first == '-';
}

}  // namespace

Terminal Terminal::now() {
    winsize window{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) != 0) return {};
    return {window.ws_col, window.ws_row};
}

Screen::Screen(std::ostream& out) : out_(out) {
    for (const auto& [signal, handler] : handlers) std::signal(signal, handler);
    send(enter);
}

Screen::~Screen() {
    send(leave);
    for (const auto& [signal, handler] : handlers) std::signal(signal, SIG_DFL);
}

void Screen::draw(const std::string& title, const std::string& text) {
    std::vector<std::string_view> lines;
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size());
        lines.push_back(std::string_view(text).substr(start, end - start));
        start = end + 1;
    }
    // A terminal that does not know its size is taken for a usual one.
    const size_t rows = std::max<size_t>(Terminal::now().rows == 0 ? 24 : Terminal::now().rows, 3);
    const bool fits = lines.size() < rows;
    const size_t shown = fits ? lines.size() : rows - 2;
    std::string frame = "\x1b[H" + title + "\x1b[K";
    for (size_t i = 0; i < shown; ++i) frame += "\n" + std::string(lines[i]) + "\x1b[K";
    if (!fits) {
        size_t marked = 0;
        for (size_t i = shown; i < lines.size(); ++i)
            marked += !lines[i].empty() && isMark(lines[i].front());
        frame += "\n… " + std::to_string(lines.size() - shown) + " more lines, " +
                 std::to_string(marked) + " of them marked\x1b[K";
    }
    out_ << frame << "\x1b[J" << std::flush;
}

void Screen::wait() {
    sleep(1);
}

}  // namespace Navctl

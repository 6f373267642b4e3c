#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string_view>

#include "navctl/Cli.h"

int main(int argc, char** argv) {
    // Colours follow https://no-color.org, and are never written to a pipe or a file.
    const char* terminal = std::getenv("TERM");
    const char* without = std::getenv("NO_COLOR");
    const bool colours = isatty(STDOUT_FILENO) == 1 && (without == nullptr || *without == '\0') &&
                         terminal != nullptr && std::string_view(terminal) != "dumb";
    winsize window{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) != 0) window.ws_col = 0;  // not a terminal
    return Navctl::run({argv + 1, argv + argc},
                       {std::cin, std::cout, std::cerr, colours, window.ws_col});
}

#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <string_view>

#include "navctl/Cli.h"

int main(int argc, char** argv) {
    const char* kind = std::getenv("TERM");
    const bool terminal =
        isatty(STDOUT_FILENO) == 1 && kind != nullptr && std::string_view(kind) != "dumb";
    // Colours follow https://no-color.org, and are never written to a pipe or a file.
    const char* without = std::getenv("NO_COLOR");
    const bool colours = terminal && (without == nullptr || *without == '\0');
    return Navctl::run({argv + 1, argv + argc},
                       {std::cin, std::cout, std::cerr, terminal, colours});
}

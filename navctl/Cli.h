// navctl's command line: commands, their options, and how each ends.
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace Navctl {

enum ExitStatus { done = 0, refused = 1, badUsage = 2, noAgent = 3 };

struct Streams {
    std::istream& in;
    std::ostream& out;
    std::ostream& err;
    bool colours = false;
};

// Runs one command line, without the program's name; the reason of a failure goes to `err`.
ExitStatus run(std::vector<std::string> arguments, Streams streams);

}  // namespace Navctl

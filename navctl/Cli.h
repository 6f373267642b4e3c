// navctl's command line: commands, their options, and how each ends.
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace Navctl {

// refused: also when standard output could not be written. noAgent: also when the agent, or the
// writer of the counters, ended before the command did.
enum ExitStatus { done = 0, refused = 1, badUsage = 2, noAgent = 3, noPermission = 4 };

struct Streams {
    std::istream& in;
    std::ostream& out;
    std::ostream& err;
    bool colours = false;
};

// Runs one command line, without the program's name. The reason of a failure goes to `err`: as a
// sentence, or under --json as {"ok":false,"error":…}.
ExitStatus run(std::vector<std::string> arguments, Streams streams);

}  // namespace Navctl

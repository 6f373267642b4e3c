// The command line of navctl: commands, their options, and their exit statuses.
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

namespace Navctl {

// refused: also if standard output cannot be written. noAgent: also if the agent, or the writer of
// the counters, ends before the command does.
enum ExitStatus { done = 0, refused = 1, badUsage = 2, noAgent = 3, noPermission = 4 };

struct Streams {
    std::istream& in;
    std::ostream& out;
    std::ostream& err;
    bool terminal = false;  // `out` is a terminal on which text can be replaced
    bool colours = false;
};

// Runs one command line, without the program's name. The reason of a failure is written to `err`,
// as a sentence, or with --json as {"ok":false,"error":…}.
ExitStatus run(std::vector<std::string> arguments, Streams streams);

}  // namespace Navctl

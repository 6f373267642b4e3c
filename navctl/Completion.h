// Shell completion: the script that the shell loads, and the words that the script requests from
// navctl.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace Navctl {

// The script by which bash completes navctl's command line; it runs `navctl __complete WORD...`.
extern const char* const bashScript;

// The completions of the last of the words after "navctl". Commands and options come from `app`;
// paths and keys from the agent of the run directory, and are missing without an agent. `runDir` is
// the default, which a --run-dir among the words overrides.
std::vector<std::string> complete(const CLI::App& app, const std::vector<std::string>& words,
                                  std::string runDir);

}  // namespace Navctl

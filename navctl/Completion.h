// Shell completion: the script that the shell loads, and the words it asks navctl for.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace Navctl {

// The script that makes bash complete navctl's command line; it runs `navctl __complete WORD...`.
extern const char* const bashScript;

// What the last of the words after "navctl" may be completed to. Commands and options come from
// `app`; paths and keys from the agent of the run directory, and without one there are none.
// `runDir` is the default, which a --run-dir among the words overrides.
std::vector<std::string> complete(const CLI::App& app, const std::vector<std::string>& words,
                                  std::string runDir);

}  // namespace Navctl

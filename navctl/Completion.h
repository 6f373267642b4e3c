// Shell completion: the script that the shell loads, and the words that the script requests from
// navctl.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace Navctl {

// The scripts by which shells complete navctl's command line; they run `navctl __complete WORD...`. That
// of zsh also works as the file _navctl in its fpath.
extern const char* const bashScript;
extern const char* const zshScript;

// The completions of the last of the words after "navctl". Commands and options come from `app`;
// paths and keys from the agent of the run directory, and are missing without an agent. `runDir` is
// the default, which a --run-dir among the words overrides.
std::vector<std::string> complete(const CLI::App& app, const std::vector<std::string>& words,
                                  std::string runDir);

}  // namespace Navctl

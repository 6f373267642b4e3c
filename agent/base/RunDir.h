// The run directory: where an agent's sockets live, and what makes sure that there is one agent to
// a directory. RunDir belongs to the agent and holds the directory for as long as it lives; the
// free functions serve clients too.
#pragma once

#include <sys/un.h>

#include <stdexcept>
#include <string>

namespace Agent {

// A run directory that cannot be used; what() names it and says why.
class RunDirError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

inline constexpr const char* commandSocketName = "command.sock";
inline constexpr const char* controlSocketName = "control.sock";

// /run/nav for root, else $XDG_RUNTIME_DIR/nav; RunDirError when that is not set.
std::string defaultRunDir();

// The address of a Unix socket; RunDirError if the path does not fit one (107 bytes).
sockaddr_un socketAddress(const std::string& path);

class RunDir {
  public:
    // Creates the directory (mode 0700) if it is missing, and takes its lock. RunDirError if it
    // cannot be made, is no directory, or belongs to a running agent. The lock goes with the
    // process, so that what a crashed agent left behind never stands in the way.
    explicit RunDir(std::string path);
    // The same, and unless `group` is empty gives the directory to it with mode 0750, so that its
    // members may read the shared maps (platform/shard/Namespace.h). Sockets and lock stay the
    // owner's alone. RunDirError if there is no such group or the process may not give it.
    RunDir(std::string path, const std::string& group);
    ~RunDir();
    RunDir(const RunDir&) = delete;
    RunDir& operator=(const RunDir&) = delete;

    const std::string& path() const { return path_; }

  private:
    std::string path_;
    int lock_;
};

}  // namespace Agent

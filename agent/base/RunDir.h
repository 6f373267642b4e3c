// The run directory, which contains an agent's sockets and ensures that there is one agent per
// directory. RunDir belongs to the agent and holds the directory for its lifetime; the free
// functions serve clients too.
#pragma once

#include <sys/un.h>

#include <stdexcept>
#include <string>

namespace Agent {

// A run directory that cannot be used; what() names it and the reason.
class RunDirError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

inline constexpr const char* commandSocketName = "command.sock";
inline constexpr const char* controlSocketName = "control.sock";

// /run/nav for root, else $XDG_RUNTIME_DIR/nav; throws RunDirError if that is not set.
std::string defaultRunDir();

// Where a client looks for an agent: the directory above if an agent has a socket there, else
// /run/nav, the service's, if the user may enter it; else the directory above.
std::string clientRunDir();

// The address of a Unix socket; throws RunDirError if the path is too long (107 bytes).
sockaddr_un socketAddress(const std::string& path);

// Gives a file to a group unless it belongs to it: the agent's service may not call chown(2) at all.
// False, with errno, if it cannot.
bool groupIs(const std::string& path, gid_t group);

class RunDir {
  public:
    // Creates the directory (mode 0700) if it is missing, and takes its lock. Throws RunDirError if
    // it cannot be created, is not a directory, or belongs to a running agent. The lock ends with
    // the process, so a crashed agent never prevents the next start.
    explicit RunDir(std::string path);
    // The same; unless `group` is empty, the directory gets that group and mode 0750, so that its
    // members may read the shared maps (platform/shard/Namespace.h) and connect to the sockets,
    // where they may read only. The lock stays accessible to the owner only. Throws RunDirError if
    // the group is not found or the process may not assign it.
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

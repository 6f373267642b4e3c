#include "agent/base/RunDir.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Agent {

namespace {

constexpr const char* serviceRunDir = "/run/nav";

[[noreturn]] void fail(const std::string& what) {
    throw RunDirError(what + ": " + std::strerror(errno));
}

}  // namespace

std::string defaultRunDir() {
    if (geteuid() == 0) return serviceRunDir;
    const char* base = std::getenv("XDG_RUNTIME_DIR");
    if (base == nullptr || *base == '\0') {
        throw RunDirError("XDG_RUNTIME_DIR is not set: a run directory is required (--run-dir)");
    }
    return std::string(base) + "/nav";
}

std::string clientRunDir() {
    const auto hasAgent = [](const std::string& directory) {
        return access((directory + "/" + controlSocketName).c_str(), F_OK) == 0;
    };
    const char* base = std::getenv("XDG_RUNTIME_DIR");
    const bool hasOwn = geteuid() == 0 || (base != nullptr && *base != '\0');
    if (hasOwn && hasAgent(defaultRunDir())) return defaultRunDir();
    return hasAgent(serviceRunDir) ? serviceRunDir : defaultRunDir();
}

sockaddr_un socketAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        throw RunDirError(path + ": longer than the " +
                          std::to_string(sizeof address.sun_path - 1) +
                          " bytes that a socket's path may have");
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

bool groupIs(const std::string& path, gid_t group) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 &&
           (status.st_gid == group || chown(path.c_str(), static_cast<uid_t>(-1), group) == 0);
}

RunDir::RunDir(std::string path) : path_(std::move(path)) {
    if (mkdir(path_.c_str(), 0700) != 0 && errno != EEXIST) fail(path_);
    struct stat status;
    if (stat(path_.c_str(), &status) != 0) fail(path_);
    if (!S_ISDIR(status.st_mode)) {
        errno = ENOTDIR;
        fail(path_);
    }
    const std::string name = path_ + "/agent.lock";
    lock_ = open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (lock_ < 0) fail(name);
    if (flock(lock_, LOCK_EX | LOCK_NB) != 0) {
        const int reason = errno;
        std::array<char, 16> pid{};
        const bool known = read(lock_, pid.data(), pid.size() - 1) > 0;
        close(lock_);
        errno = reason;
        if (reason != EWOULDBLOCK) fail(name);
        throw RunDirError(path_ + ": another agent is running there" +
                          (known ? " (pid " + std::to_string(std::atoi(pid.data())) + ")" : ""));
    }
    // The pid is only for the message above: a lock file that could not be written still locks.
    if (ftruncate(lock_, 0) == 0) dprintf(lock_, "%d\n", getpid());
}

RunDir::RunDir(std::string path, const std::string& group) : RunDir(std::move(path)) {
    if (group.empty()) return;
    const struct group* entry = getgrnam(group.c_str());
    if (!entry) throw RunDirError("group " + group + ": not found");
    if (!groupIs(path_, entry->gr_gid) || chmod(path_.c_str(), 0750) != 0)
        fail(path_ + ": cannot give it to group " + group);
}

// The lock file stays: if it were removed, two new agents could lock two different files.
RunDir::~RunDir() {
    close(lock_);
}

}  // namespace Agent

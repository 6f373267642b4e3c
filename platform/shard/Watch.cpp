#include "platform/shard/Watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/netz/Error.h"

namespace Shard {
namespace {

// Where Linux keeps POSIX shared memory: shm_overview(7).
constexpr const char* directory = "/dev/shm";

int watch(int inotify, const char* path, uint32_t events) {
    const int descriptor = inotify_add_watch(inotify, path, events);
    if (descriptor >= 0) return descriptor;
    throw Vel::Error("cannot watch " + std::string(path) + ": " +
                     std::generic_category().message(errno));
}

}  // namespace

Watch::Watch() : inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    if (!inotify_) {
        throw Vel::Error("no watch for shared maps: " + std::generic_category().message(errno));
    }
    watch(inotify_.get(), directory, IN_CREATE | IN_ONLYDIR);
}

void Watch::drain() {
    alignas(inotify_event) char events[4096];
    while (read(inotify_.get(), events, sizeof events) == sizeof events) {
    }
}

void Watch::fileIs(const Descriptor& file) {
    const std::string path = "/proc/self/fd/" + std::to_string(file.get());
    const int added = watch(inotify_.get(), path.c_str(), IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE);
    if (file_ >= 0 && file_ != added) inotify_rm_watch(inotify_.get(), file_);
    file_ = added;
}

}  // namespace Shard

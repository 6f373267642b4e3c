#include "platform/shard/FileWatch.h"

#include <sys/inotify.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/netz/Error.h"

namespace Shard {
namespace {

constexpr long tickNanoseconds = 100'000'000;

Descriptor ticks() {
    Descriptor timer(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    const itimerspec period{{0, tickNanoseconds}, {0, tickNanoseconds}};
    if (!timer || timerfd_settime(timer.get(), 0, &period, nullptr) != 0) {
        throw Vel::Error("cannot watch shared maps: no descriptor: " +
                         std::generic_category().message(errno));
    }
    return timer;
}

}  // namespace

FileWatch::FileWatch(const std::string& directory)
    : events_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    timer_ =
        !events_ || inotify_add_watch(events_.get(), directory.c_str(), IN_CREATE | IN_ONLYDIR) < 0;
    if (timer_) events_ = ticks();
}

void FileWatch::drain() {
    alignas(inotify_event) char events[4096];
    while (read(events_.get(), events, sizeof events) == sizeof events) {
    }
}

void FileWatch::fileIs(const Descriptor& file) {
    if (timer_) return;
    const std::string path = "/proc/self/fd/" + std::to_string(file.get());
    const int added =
        inotify_add_watch(events_.get(), path.c_str(), IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE);
    if (added < 0) {
        throw Vel::Error("cannot watch the map's file: " + std::generic_category().message(errno));
    }
    if (file_ >= 0 && file_ != added) inotify_rm_watch(events_.get(), file_);
    file_ = added;
}

}  // namespace Shard

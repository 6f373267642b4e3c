#include "agent/shell/ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace Agent {

namespace {

// The value of an environment variable, which child processes do not get.
std::string take(const char* name) {
    const char* value = std::getenv(name);
    std::string taken = value ? value : "";
    unsetenv(name);
    return taken;
}

}  // namespace

ServiceManager::ServiceManager(EventLoop& loop, std::function<std::string()> status)
    : loop_(loop), status_(std::move(status)), socket_(take("NOTIFY_SOCKET")) {
    const std::string interval = take("WATCHDOG_USEC"), process = take("WATCHDOG_PID");
    if (process.empty() || process == std::to_string(getpid()))
        interval_ = std::chrono::microseconds(std::strtoull(interval.c_str(), nullptr, 10)) / 2;
    // A name in the abstract namespace is written with '@' for its NUL byte.
    if (!socket_.empty() && socket_.front() == '@') socket_.front() = '\0';
}

void ServiceManager::send(const std::string& text) const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socket_.empty() || socket_.size() >= sizeof address.sun_path) return;
    std::memcpy(address.sun_path, socket_.data(), socket_.size());
    const int descriptor = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) return;
    // A manager that does not read must not hold up the event loop; it misses a message then.
    (void)sendto(descriptor, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                 reinterpret_cast<const sockaddr*>(&address),
                 static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + socket_.size()));
    close(descriptor);
}

void ServiceManager::ready() {
    send("READY=1\nSTATUS=" + status_() + "\n");
    if (interval_.count() != 0 && !life_) showLife();
}

void ServiceManager::reloading() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    send("RELOADING=1\nMONOTONIC_USEC=" +
         std::to_string(now.tv_sec * 1'000'000LL + now.tv_nsec / 1000) + "\n");
}

void ServiceManager::stopping() {
    send("STOPPING=1\n");
}

void ServiceManager::showLife() {
    send("WATCHDOG=1\nSTATUS=" + status_() + "\n");
    life_ = loop_.onTimer(interval_, [this] { showLife(); });
}

}  // namespace Agent

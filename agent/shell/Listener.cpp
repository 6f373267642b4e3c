#include "agent/shell/Listener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "agent/base/RunDir.h"

namespace Agent {

int listeningSocket(const std::string& path) {
    const sockaddr_un address = socketAddress(path);
    struct stat directory {};
    stat(path.substr(0, path.rfind('/')).c_str(), &directory);
    const bool forGroup = (directory.st_mode & S_IXGRP) != 0;
    unlink(path.c_str());
    const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    // The mode is set before the first client can connect: nobody connects before listen().
    if (descriptor >= 0 &&
        bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        (!forGroup || groupIs(path, directory.st_gid)) &&
        chmod(path.c_str(), forGroup ? 0660 : 0600) == 0) {
        return descriptor;
    }
    const int reason = errno;
    if (descriptor >= 0) close(descriptor);
    throw RunDirError(path + ": " + std::strerror(reason));
}

Listener::Listener(EventLoop& loop, std::string path, Accepted accepted)
    : loop_(loop),
      path_(std::move(path)),
      accepted_(std::move(accepted)),
      listener_(nullptr, evconnlistener_free) {
    const int descriptor = listeningSocket(path_);
    auto take = [](evconnlistener*, evutil_socket_t client, sockaddr*, int, void* self) noexcept {
        static_cast<Listener*>(self)->accepted_(client);
    };
    listener_.reset(evconnlistener_new(loop.base(), take, this,
                                       LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, SOMAXCONN,
                                       descriptor));
    if (!listener_) {
        close(descriptor);
        throw RunDirError(path_ + ": " + std::strerror(errno));
    }
    evconnlistener_set_error_cb(listener_.get(), [](evconnlistener*, void* self) noexcept {
        static_cast<Listener*>(self)->pause();
    });
}

Listener::~Listener() {
    unlink(path_.c_str());
}

// No descriptors left: the waiting client keeps the socket readable, so stop polling it for a
// moment instead of spinning.
void Listener::pause() {
    evconnlistener_disable(listener_.get());
    resume_ = loop_.onTimer(std::chrono::milliseconds(100),
                            [this] { evconnlistener_enable(listener_.get()); });
}

}  // namespace Agent

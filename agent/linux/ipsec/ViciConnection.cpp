#include "agent/linux/ipsec/ViciConnection.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace Agent::Linux {

namespace {

// A socket of the same machine is connected at once, or not at all.
int connected(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw std::system_error(ENAMETOOLONG, std::generic_category(), path);
    std::memcpy(address.sun_path, path.data(), path.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "socket");
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        ::close(fd);
        throw std::system_error(error, std::generic_category(), path);
    }
    return fd;
}

}  // namespace

ViciConnection::ViciConnection(EventLoop& loop, const std::string& path, Callbacks callbacks)
    : loop_(loop), callbacks_(std::move(callbacks)), socket_(connected(path)) {
    readable_ = loop.onReadable(socket_, [this] { handleReadable(); });
}

ViciConnection::~ViciConnection() {
    if (alive_) *alive_ = false;
    readable_ = {};
    writable_ = {};
    ::close(socket_);
}

void ViciConnection::send(const std::string& bytes) {
    waiting_ += bytes;
    if (waiting_.size() > maxWaiting) broken_ = "charon does not read";
    flush();
}

void ViciConnection::flush() {
    while (broken_.empty() && !waiting_.empty()) {
        const ssize_t sent = ::send(socket_, waiting_.data(), waiting_.size(), MSG_NOSIGNAL);
        if (sent >= 0)
            waiting_.erase(0, static_cast<size_t>(sent));
        else if (errno == EAGAIN)
            break;
        else if (errno != EINTR)
            broken_ = std::strerror(errno);
    }
    if (broken_.empty() && waiting_.empty())
        writable_ = {};
    else if (!writable_)
        writable_ = loop_.onWritable(socket_, [this] { handleWritable(); });
}

void ViciConnection::await(std::chrono::milliseconds patience) {
    flush();
    pollfd readable{socket_, POLLIN, 0};
    if (poll(&readable, 1, static_cast<int>(patience.count())) > 0) handleReadable();
}

void ViciConnection::handleWritable() {
    flush();
    if (!broken_.empty()) close(broken_);
}

void ViciConnection::handleReadable() {
    std::array<char, readAtOnce> bytes;
    const ssize_t count = recv(socket_, bytes.data(), bytes.size(), 0);
    if (count == 0) return close("charon has closed the connection");
    if (count < 0) {
        if (errno != EAGAIN && errno != EINTR) close(std::strerror(errno));
        return;
    }
    stream_.append({bytes.data(), static_cast<size_t>(count)});
    bool alive = true;
    alive_ = &alive;
    std::string reason;
    try {
        while (alive) {
            const auto packet = stream_.next();
            if (!packet) break;
            callbacks_.received(*packet);
        }
    } catch (const Vici::Error& error) {
        reason = std::string("charon's answer is not VICI: ") + error.what();
    }
    if (!alive) return;
    alive_ = nullptr;
    if (!reason.empty()) close(reason);
}

void ViciConnection::close(const std::string& reason) {
    readable_ = {};
    writable_ = {};
    const auto closed = callbacks_.closed;  // which may destroy this
    closed(reason);
}

}  // namespace Agent::Linux

#include "nav/root/ShowText.h"

#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace Nav {

namespace {

// Blocks SIGPIPE around write(2), which has no flag to prevent the signal.
class PipeSignalBlock {
  public:
    PipeSignalBlock() {
        sigset_t pending;
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        sigpending(&pending);
        wasPending_ = sigismember(&pending, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
    }
    ~PipeSignalBlock() {
        const timespec now{};
        if (!wasPending_) sigtimedwait(&pipe_, nullptr, &now);
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }

  private:
    sigset_t pipe_;
    sigset_t before_;
    bool wasPending_;
};

// For pipes, files and terminals. A descriptor that polls ready takes PIPE_BUF bytes without
// waiting (pipe(7)).
void writeAnswer(int fd, std::string_view text) {
    const PipeSignalBlock block;
    while (!text.empty()) {
        pollfd ready{fd, POLLOUT, 0};
        if (::poll(&ready, 1, 0) != 1 || !(ready.revents & POLLOUT)) return;
        const ssize_t n = ::write(fd, text.data(), std::min<size_t>(text.size(), PIPE_BUF));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        text.remove_prefix(static_cast<size_t>(n));
    }
}

}  // namespace

void sendText(Vel::U32 fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t n =
            ::send(static_cast<int>(fd), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == ENOTSOCK) return writeAnswer(static_cast<int>(fd), text);
        if (n <= 0) return;
        text.remove_prefix(static_cast<size_t>(n));
    }
}

}  // namespace Nav

#include "agent/shell/Log.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "platform/trace/Duolog.h"

namespace Agent {

namespace {

constexpr int warning = 4;       // syslog's "warning"
constexpr int debug = 7;         // syslog's "debug", the last
constexpr int forEngineers = 7;  // from this level on

// As systemd.exec(5) describes JOURNAL_STREAM.
bool isJournal(const struct stat& status) {
    const char* journal = std::getenv("JOURNAL_STREAM");
    return journal != nullptr &&
           std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == journal;
}

// "time facility:level function: text (place)" without the function and the place.
std::string briefly(const Ringlog::Line& line) {
    const size_t facility = line.line.find(' ') + 1;
    return line.line.substr(0, line.line.find(' ', facility) + 1).append(line.text());
}

}  // namespace

Log::Log(int descriptor) : descriptor_(descriptor) {
    struct stat status {};
    fstat(descriptor, &status);
    isSocket_ = S_ISSOCK(status.st_mode);
    toJournal_ = isJournal(status);
    // O_NONBLOCK belongs to the open file description, which other processes share, so the file is
    // opened again if writing to it can block at all.
    if (S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)) {
        const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
        const int own = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        owned_ = own >= 0;
        if (owned_) descriptor_ = own;
    }
    Duolog::textSinkIs([this](const Ringlog::Line& line) { record(line); });
}

Log::~Log() {
    Duolog::textSinkIs(nullptr);
    writable_ = {};
    flush();
    if (owned_) close(descriptor_);
}

void Log::loopIs(EventLoop* loop) {
    writable_ = {};
    loop_ = loop;
    flush();
}

void Log::record(const Ringlog::Line& line) {
    write(line.level, line.level < forEngineers ? briefly(line) : line.line);
}

void Log::write(int level, std::string_view text) {
    const std::string priority =
        toJournal_ ? '<' + std::to_string(std::min(level, debug)) + '>' : std::string();
    if (pending_.size() + priority.size() + text.size() >= maxPending) {
        drop(1);
    } else {
        pending_.append(priority).append(text) += '\n';
    }
    flush();
}

void Log::flush() {
    bool written = false;
    while (!pending_.empty() && writeSome()) written = true;
    if (written && pending_.empty() && dropped_ > 0)
        return write(warning,
                     std::to_string(std::exchange(dropped_, 0)) +
                         " lines of the log were dropped because the reader did not keep up");
    if (pending_.empty())
        writable_ = {};
    else if (loop_ && !writable_)
        writable_ = loop_->onWritable(descriptor_, [this] { flush(); });
}

// Returns false if nothing more can be written now.
bool Log::writeSome() {
    size_t size = pending_.size();
    if (!owned_ && !isSocket_) {
        // Files never block; anything else that polls writable takes PIPE_BUF bytes.
        pollfd ready{descriptor_, POLLOUT, 0};
        if (poll(&ready, 1, 0) != 1) return false;
        size = std::min<size_t>(size, PIPE_BUF);
    }
    const ssize_t count =
        isSocket_ ? send(descriptor_, pending_.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL)
                  : ::write(descriptor_, pending_.data(), size);
    if (count > 0) {
        pending_.erase(0, static_cast<size_t>(count));
        return true;
    }
    if (count < 0 && errno == EINTR) return true;
    if (count < 0 && errno == EAGAIN) return false;
    // The reader is gone or no space is left: the lines are dropped.
    drop(static_cast<size_t>(std::ranges::count(pending_, '\n')));
    pending_.clear();
    return false;
}

}  // namespace Agent

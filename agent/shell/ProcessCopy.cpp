#include "agent/shell/ProcessCopy.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#include "platform/trace/Duolog.h"

namespace Agent {

namespace {

// So that the event thread goes first; not every service may change it.
constexpr int niceness = 10;
constexpr size_t pipeBytes = 65536;

[[noreturn]] void failed(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void writeAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(descriptor, text.data(), text.size());
        if (count < 0 && errno != EINTR) _exit(EXIT_FAILURE);
        text.remove_prefix(static_cast<size_t>(std::max<ssize_t>(count, 0)));
    }
}

// Nothing of the agent's is shared with the copy from here on but its mapped tables.
[[noreturn]] void runCopy(pid_t parent, int result,
                          const std::function<std::string()>& work) noexcept {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(EXIT_FAILURE);
    for (int number = 1; number < NSIG; ++number) std::signal(number, SIG_DFL);
    const auto last = static_cast<unsigned>(result);
    close_range(STDERR_FILENO + 1, last - 1, 0);
    close_range(last + 1, ~0U, 0);
    Duolog::textSinkIs(nullptr);
    setpriority(PRIO_PROCESS, 0, niceness);
    alarm(ProcessCopy::limit);
    writeAll(result, work());
    _exit(EXIT_SUCCESS);
}

std::string reasonOf(int status) {
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM)
        return "took longer than " + std::to_string(ProcessCopy::limit) + " s";
    if (WIFSIGNALED(status)) return "ended by signal " + std::to_string(WTERMSIG(status));
    return "ended with status " + std::to_string(WEXITSTATUS(status));
}

}  // namespace

ProcessCopy::ProcessCopy(EventLoop& loop, const std::function<std::string()>& work,
                         std::function<void(Result)> done)
    : done_(std::move(done)) {
    std::array<int, 2> ends;
    if (pipe2(ends.data(), O_CLOEXEC) != 0) failed("pipe");
    const pid_t parent = getpid();
    process_ = fork();
    if (process_ == 0) runCopy(parent, ends[1], work);
    const int error = errno;
    close(ends[1]);
    descriptor_ = ends[0];
    if (process_ < 0) {
        close(descriptor_);
        errno = error;
        failed("fork");
    }
    readable_ = loop.onReadable(descriptor_, [this] { readable(); });
}

ProcessCopy::~ProcessCopy() {
    readable_ = {};
    kill();
    if (process_ > 0) waitpid(process_, nullptr, 0);
    close(descriptor_);
}

void ProcessCopy::kill() {
    if (process_ > 0) ::kill(process_, SIGKILL);
}

// A process closes its descriptors after it has given back its memory, so it is waited for no
// longer than a moment.
void ProcessCopy::readable() {
    std::array<char, pipeBytes> bytes;
    const ssize_t count = read(descriptor_, bytes.data(), bytes.size());
    if (count > 0) return void(text_.append(bytes.data(), static_cast<size_t>(count)));
    if (count < 0 && errno == EINTR) return;
    readable_ = {};
    int status = 0;
    waitpid(std::exchange(process_, -1), &status, 0);
    const auto done = std::move(done_);
    done({std::move(text_), status == 0 ? std::string() : reasonOf(status)});
}

}  // namespace Agent

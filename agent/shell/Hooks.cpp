#include "agent/shell/Hooks.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "agent/shell/AgentTrace.h"

namespace Agent {

namespace {

std::string detail(const Transition& transition, std::string_view name) {
    for (const auto& [key, value] : transition.details)
        if (key == name) return value;
    return {};
}

bool sameSubject(const Transition& a, const Transition& b) {
    return a.kind == b.kind && a.name == b.name && detail(a, "NAV_SITE") == detail(b, "NAV_SITE") &&
           detail(a, "NAV_VRF") == detail(b, "NAV_VRF");
}

std::vector<std::string> environmentOf(const Transition& transition) {
    const char* path = std::getenv("PATH");
    std::vector<std::string> environment = {
        std::string("PATH=") + (path ? path : "/usr/sbin:/usr/bin:/sbin:/bin"),
        "NAV_KIND=" + transition.kind, "NAV_NAME=" + transition.name,
        "NAV_STATE=" + transition.state};
    for (const auto& [name, value] : transition.details) environment.push_back(name + "=" + value);
    return environment;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

// A process of its own group, with default signals and no descriptors but the standard ones: no
// input, and the agent's standard error as output.
class Spawn {
  public:
    Spawn() {
        posix_spawn_file_actions_init(&actions_);
        posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions_, STDERR_FILENO, STDOUT_FILENO);
        posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
        sigset_t all, none;
        sigfillset(&all);
        sigemptyset(&none);
        posix_spawnattr_init(&attributes_);
        posix_spawnattr_setflags(
            &attributes_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
        posix_spawnattr_setpgroup(&attributes_, 0);
        posix_spawnattr_setsigdefault(&attributes_, &all);
        posix_spawnattr_setsigmask(&attributes_, &none);
    }
    ~Spawn() {
        posix_spawnattr_destroy(&attributes_);
        posix_spawn_file_actions_destroy(&actions_);
    }
    Spawn(const Spawn&) = delete;
    Spawn& operator=(const Spawn&) = delete;

    // 0, or the error number.
    int run(pid_t& process, std::vector<std::string> arguments,
            std::vector<std::string> environment) const {
        return posix_spawn(&process, arguments.front().c_str(), &actions_, &attributes_,
                           pointersTo(arguments).data(), pointersTo(environment).data());
    }

  private:
    posix_spawn_file_actions_t actions_;
    posix_spawnattr_t attributes_;
};

}  // namespace

// A running process. Its descriptor becomes readable when the process has ended; until then, and
// until it has been waited for, its id is not used again.
struct Hooks::Run {
    ~Run() {
        end = {};
        if (descriptor >= 0) close(descriptor);
    }

    Transition transition;
    pid_t process = -1;
    int descriptor = -1;
    bool killed = false;
    EventLoop::Registration end, limit;
};

Hooks::Hooks(EventLoop& loop, std::string program, std::chrono::seconds limit)
    : loop_(loop), program_(std::move(program)), limit_(limit) {}

Hooks::~Hooks() {
    for (const Run& run : running_) kill(-run.process, SIGKILL);
}

void Hooks::add(Transition transition) {
    if (waiting_.size() == mostWaiting) {
        waiting_.pop_front();
        ++counts_[static_cast<size_t>(Result::dropped)];
        ++droppedInARow_;
    }
    waiting_.push_back(std::move(transition));
    startSome();
}

bool Hooks::isRunning(const Transition& transition) const {
    return std::ranges::any_of(
        running_, [&](const Run& run) { return sameSubject(run.transition, transition); });
}

void Hooks::startSome() {
    for (auto next = waiting_.begin(); next != waiting_.end() && running_.size() < atOnce;) {
        if (isRunning(*next)) {
            ++next;
            continue;
        }
        const Transition transition = std::move(*next);
        next = waiting_.erase(next);
        start(transition);
    }
    if (!waiting_.empty() || droppedInARow_ == 0) return;
    DUOLOG(agentTrace, 4, std::exchange(droppedInARow_, 0), " transitions were not reported to ",
           LongText{program_}, ", which did not keep up");
}

void Hooks::start(const Transition& transition) {
    Run& run = running_.emplace_back();
    run.transition = transition;
    static const Spawn spawn;
    if (const int error =
            spawn.run(run.process, {program_, transition.kind, transition.name, transition.state},
                      environmentOf(transition))) {
        running_.pop_back();
        return report(transition, Result::failed, std::strerror(error));
    }
    // glibc 2.36 declares pidfd_open(2) without C linkage.
    run.descriptor = static_cast<int>(syscall(SYS_pidfd_open, run.process, 0));
    if (run.descriptor < 0) {
        const int error = errno;
        kill(-run.process, SIGKILL);
        waitpid(run.process, nullptr, 0);
        running_.pop_back();
        return report(transition, Result::failed, std::strerror(error));
    }
    run.end = loop_.onReadable(run.descriptor, [this, &run] { ended(run); });
    run.limit = loop_.onTimer(limit_, [this, &run] { overdue(run); });
}

void Hooks::overdue(Run& run) {
    run.killed = true;
    kill(-run.process, SIGKILL);
}

void Hooks::ended(Run& run) {
    siginfo_t info{};
    waitid(P_PIDFD, static_cast<id_t>(run.descriptor), &info, WEXITED);
    const Transition transition = std::move(run.transition);
    const bool killed = run.killed;
    running_.remove_if([&run](const Run& each) { return &each == &run; });
    if (killed)
        report(transition, Result::killed, "killed after " + std::to_string(limit_.count()) + " s");
    else if (info.si_code == CLD_EXITED && info.si_status == 0)
        ++counts_[static_cast<size_t>(Result::succeeded)];
    else
        report(transition, Result::failed,
               (info.si_code == CLD_EXITED ? "exit status " : "ended by signal ") +
                   std::to_string(info.si_status));
    startSome();
}

void Hooks::report(const Transition& transition, Result result, const std::string& reason) {
    ++counts_[static_cast<size_t>(result)];
    DUOLOG(agentTrace, 4, "hook ", LongText{program_}, " ", transition.kind, " ",
           LongText{transition.name}, " ", transition.state, ": ", LongText{reason});
}

}  // namespace Agent

// Threads beside the event thread, for work that must not wait for it, or that it must not wait
// for. Signals stay the event thread's.
#pragma once

#include <pthread.h>

#include <csignal>
#include <functional>
#include <thread>

namespace Agent::Linux {

// `name`: 15 bytes at most, as tools show it. Raises std::system_error if there are too many.
inline std::thread startThread(const char* name, std::function<void()> run) {
    struct Masked {
        Masked() {
            sigset_t all;
            sigfillset(&all);
            pthread_sigmask(SIG_SETMASK, &all, &before);
        }
        ~Masked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
        sigset_t before;
    } const masked;
    std::thread thread(std::move(run));
    pthread_setname_np(thread.native_handle(), name);
    return thread;
}

}  // namespace Agent::Linux

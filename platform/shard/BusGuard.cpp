#include "platform/shard/BusGuard.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <mutex>

namespace Shard {
namespace {

// Ranges are reused but never freed: the signal handler may be reading the list at any time.
std::atomic<BusGuard::Range*> ranges{nullptr};
std::mutex rangesMutex;
struct sigaction previous;
uintptr_t pageBytes;

bool patch(uintptr_t address) {
    for (auto* range = ranges.load(); range; range = range->next) {
        if (address < range->begin || address >= range->end) continue;
        const uintptr_t page = address & ~(pageBytes - 1);
        const int access = range->writable ? PROT_READ | PROT_WRITE : PROT_READ;
        range->hit = true;
        return mmap(reinterpret_cast<void*>(page), range->end - page, access,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) != MAP_FAILED;
    }
    return false;
}

void handleBus(int signal, siginfo_t* info, void* context) {
    const bool fault = info->si_code > 0;  // not sent by a process: sigaction(2)
    const int savedErrno = errno;
    const bool patched = fault && patch(reinterpret_cast<uintptr_t>(info->si_addr));
    errno = savedErrno;
    if (patched) return;
    if (previous.sa_flags & SA_SIGINFO) return previous.sa_sigaction(signal, info, context);
    if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
        return previous.sa_handler(signal);
    }
    // The access faults again, and the previous handler receives it.
    if (fault) sigaction(SIGBUS, &previous, nullptr);
}

// The first range installs the handler.
BusGuard::Range& claim(uintptr_t begin, size_t bytes, bool writable) {
    const std::lock_guard lock(rangesMutex);
    auto* range = ranges.load();
    if (!range) {
        pageBytes = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
        struct sigaction action {};
        action.sa_sigaction = handleBus;
        action.sa_flags = SA_SIGINFO | SA_ONSTACK;
        sigaction(SIGBUS, &action, &previous);
    }
    while (range && range->end != 0) range = range->next;
    if (!range) {
        range = new BusGuard::Range;
        range->next = ranges.load();
        ranges = range;
    }
    range->hit = false;
    range->writable = writable;
    range->begin = begin;
    range->end = (begin + bytes + pageBytes - 1) & ~(pageBytes - 1);
    return *range;
}

}  // namespace

BusGuard::BusGuard(void* base, size_t bytes, bool writable)
    : range_(claim(reinterpret_cast<uintptr_t>(base), bytes, writable)) {}

BusGuard::~BusGuard() {
    range_.end = 0;
}

}  // namespace Shard

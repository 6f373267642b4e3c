// Deferred work on the event thread: tasks, which run as soon as control is back in the event loop,
// and timers, which run at a given time. The host's loop, or a test, drives the scheduler: it calls
// runDue() and then waits for events until nextDeadline() at most. The wakeup tells the loop that
// something became due earlier, outside runDue().
//
// Tasks and timers are members of their users; the scheduler owns none of them and allocates only
// for its heap of timers. Destroying one removes it from the queue. The order is fixed: tasks run
// in the order of posting, timers by deadline, timers with the same deadline in the order of
// arming.
//
// Everything is used on the event thread, without locks. The scheduler must outlive every call made
// to it; tasks and timers that still wait when it is destroyed are dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include "platform/Export.h"
#include "platform/loom/Clock.h"
#include "platform/loom/Link.h"

namespace Loom {

class TaskScheduler;

// A member function bound to its object, without allocation: call<&NavPathSm::recompute>(*this).
struct Callback {
    void (*function)(void* object) = nullptr;
    void* object = nullptr;

    explicit operator bool() const { return function != nullptr; }
    void operator()() const { function(object); }
};

template <auto method, class T>
Callback call(T& object) {
    return {[](void* self) { (static_cast<T*>(self)->*method)(); }, &object};
}

// Runs once each time it was posted. It leaves the queue before it runs: it may post itself again,
// post or destroy others, and destroy itself.
class Task : private Link {
  public:
    explicit Task(Callback callback) : callback_(callback) {}

    bool queued() const { return linked(); }
    void cancel() { unlink(); }

  private:
    friend class TaskScheduler;
    const Callback callback_;
    uint64_t round_ = 0;  // in which it was posted
};

// Runs once each time it was armed, never before its deadline; a deadline beyond the clock's range
// means the end of that range. Arming an armed timer moves its deadline; moving it later costs two
// stores, and the heap is corrected when the old deadline is reached. While a timer runs it may do
// what a task may.
class Timer {
  public:
    Timer(TaskScheduler& scheduler, Callback callback)
        : scheduler_(scheduler), callback_(callback) {}
    ~Timer() { disarm(); }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    inline void armAt(Instant deadline);
    inline void armIn(Duration delay);
    inline void disarm();
    bool armed() const { return slot_ != unarmed; }

  private:
    friend class TaskScheduler;
    static constexpr size_t unarmed = std::numeric_limits<size_t>::max();

    TaskScheduler& scheduler_;
    const Callback callback_;
    size_t slot_ = unarmed;  // index in the scheduler's heap
    Instant filed_{};        // the deadline in the heap; not after deadline_
    Instant deadline_{};
    uint64_t sequence_ = 0;  // of the latest arming; orders timers of one deadline
};

class VEL_EXPORT TaskScheduler {
  public:
    // The clock outlives the scheduler.
    explicit TaskScheduler(const Clock& clock) : clock_(clock) {}
    virtual ~TaskScheduler();
    TaskScheduler(const TaskScheduler&) = delete;
    TaskScheduler& operator=(const TaskScheduler&) = delete;

    const Clock& clock() const { return clock_; }
    Instant now() const { return clock_.now(); }

    // Appends a task to the queue; a task already queued keeps its position.
    void post(Task& task) {
        if (task.linked()) return;
        task.round_ = round_;
        task.linkBefore(posted_);
        if (!running_) [[unlikely]]
            wakeup();
    }

    // Runs what is due, in rounds: the tasks queued at the beginning of a round, then the timers
    // due at that time. Ends when nothing is due or after maxRounds, so that work that keeps
    // posting itself delays neither other work nor the host's loop, or after the first task or
    // timer that has run at or beyond `end`; what is left stays due. May be called from a task. An
    // exception of a task or timer leaves runDue() at once; what has not run yet stays due. A round
    // that ended early is continued by the next call.
    void runDue(Instant end = Instant::max());

    // Longer than any chain of tasks that post one another, and short enough for a loop that has
    // sockets to serve.
    static constexpr int maxRounds = 64;

    // When runDue() has to be called next: now or in the past while something is due; empty while
    // nothing waits.
    std::optional<Instant> nextDeadline();

    // Called when nextDeadline() has become earlier outside runDue(). The function must not run
    // tasks or timers itself.
    void wakeupIs(Callback wakeup) { wakeup_ = wakeup; }

  private:
    friend class Timer;

    struct Slot {
        Instant deadline;
        uint64_t sequence;
        Timer* timer;
        bool before(const Slot& other) const {
            return deadline != other.deadline ? deadline < other.deadline
                                              : sequence < other.sequence;
        }
    };

    bool reached(Instant end) const { return end != Instant::max() && now() >= end; }
    bool runTask();
    bool runTimers(Instant end);
    bool runTimer(Instant now, uint64_t lastArmed);
    void wakeup() {
        if (wakeup_) wakeup_();
    }

    void file(Timer& timer);
    void withdraw(Timer& timer);
    Timer* earliest();
    void place(size_t at, const Slot& slot);
    void siftUp(size_t at, const Slot& slot);
    void siftDown(size_t at, const Slot& slot);

    const Clock& clock_;
    Callback wakeup_;
    Link posted_;               // tasks in the order of posting
    uint64_t round_ = 0;        // the current one; tasks posted in it run in the next one
    bool ended_ = true;         // the current round has run its tasks
    bool running_ = false;      // inside runDue(), where no wakeup is needed
    uint64_t sequence_ = 0;     // number of armings so far
    std::vector<Slot> timers_;  // binary heap by (deadline, sequence) as filed
};

void Timer::armAt(Instant deadline) {
    deadline_ = deadline;
    sequence_ = ++scheduler_.sequence_;
    if (!armed() || deadline < filed_) scheduler_.file(*this);
}

void Timer::armIn(Duration delay) {
    Duration::rep deadline;
    if (__builtin_add_overflow(scheduler_.now().time_since_epoch().count(), delay.count(),
                               &deadline)) [[unlikely]]
        deadline = Duration::max().count();
    armAt(Instant(Duration(deadline)));
}

void Timer::disarm() {
    if (armed()) scheduler_.withdraw(*this);
}

}  // namespace Loom

// Work put off to later on the event thread: tasks, run as soon as control is back in the event
// loop, and timers, run at a time. The host's loop, or a test, drives it: call runDue(), then wait
// at most until nextDeadline(); the wakeup says that something came up outside runDue() in the
// meantime.
//
// Tasks and timers are members of whoever uses them; the scheduler owns nothing and allocates only
// for its table of timers. Destroying one takes it out of the queue. Everything runs in a fixed
// order: tasks as posted, timers by deadline, those of one deadline as armed.
//
// All on the one event thread, without locks. The scheduler outlives every call made to it; tasks
// and timers that are still waiting when it goes are let go.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include "platform/Export.h"
#include "platform/loom/Clock.h"

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

// A place in a circular list. One that is linked nowhere points at itself.
class Link {
  public:
    Link() = default;
    ~Link() { unlink(); }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    bool linked() const { return next_ != this; }
    Link& next() const { return *next_; }
    void unlink() {
        previous_->next_ = next_;
        next_->previous_ = previous_;
        previous_ = next_ = this;
    }
    // REQUIRES: this is linked nowhere.
    void linkBefore(Link& other) {
        previous_ = other.previous_;
        next_ = &other;
        previous_->next_ = other.previous_ = this;
    }

  private:
    Link* previous_ = this;
    Link* next_ = this;
};

// Runs once each time it was posted. While it runs it is not queued: it may post itself again, post
// or destroy others, and destroy itself.
class Task : private Link {
  public:
    explicit Task(Callback callback) : callback_(callback) {}

    bool queued() const { return linked(); }
    void cancel() { unlink(); }

  private:
    friend class TaskScheduler;
    const Callback callback_;
};

// Runs once each time it was armed, never before its deadline. Arming an armed timer moves it; a
// move to a later time costs two stores, the table of timers catches up when the old time has come.
// What a task may do while it runs, a timer may too.
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
    size_t slot_ = unarmed;  // in the scheduler's table
    Instant filed_{};        // the deadline there, not after the true one
    Instant deadline_{};
    uint64_t sequence_ = 0;
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

    // Puts a task at the end of the queue; one that is queued stays where it is.
    void post(Task& task) {
        if (task.linked()) return;
        task.linkBefore(posted_);
        if (!running_) [[unlikely]]
            wakeup();
    }

    // Runs tasks and due timers until there are none. Rounds alternate, the tasks queued at the
    // beginning of one and then the timers due by then, so tasks that keep coming hold up no timer
    // and timers no task. May be called from a task. An error raised by a task or timer leaves
    // runDue() at once; what has not run yet stays due.
    void runDue();

    // When runDue() has to be called next: now or in the past while something is due, nothing while
    // nothing waits.
    std::optional<Instant> nextDeadline();

    // Called when nextDeadline() has become earlier outside runDue(). It must not run anything
    // itself.
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

    void runTask(Task& task);
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
    Link posted_;  // tasks in the order of posting
    Link round_;   // those of the round that is running
    bool running_ = false;
    uint64_t sequence_ = 0;
    std::vector<Slot> timers_;  // binary heap
};

void Timer::armAt(Instant deadline) {
    deadline_ = deadline;
    sequence_ = ++scheduler_.sequence_;
    if (!armed() || deadline < filed_) scheduler_.file(*this);
}

void Timer::armIn(Duration delay) {
    armAt(scheduler_.now() + delay);
}

void Timer::disarm() {
    if (armed()) scheduler_.withdraw(*this);
}

}  // namespace Loom

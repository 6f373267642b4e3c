// The agent's one thread: waits for descriptors, signals and timers, and drives the task scheduler.
// Everything that the agent does happens in a callback of this loop or in a task that the scheduler
// runs between two of them, so nothing anywhere is locked. Owned by HostAgent; not thread safe.
//
// What always holds: whenever the loop goes to sleep, no task is due, and it wakes for the next
// one.
#pragma once

#include <event2/event.h>

#include <chrono>
#include <functional>
#include <memory>

#include "platform/loom/TaskScheduler.h"

namespace Agent {

class EventLoop {
    struct WatchState;

  public:
    using Callback = std::function<void()>;

    // Something the loop watches, until this goes. A callback may let its own watch go.
    class [[nodiscard]] Watch {
      public:
        Watch() = default;
        Watch(Watch&&) = default;
        Watch& operator=(Watch&& other) noexcept;
        ~Watch();

      private:
        friend class EventLoop;
        explicit Watch(std::shared_ptr<WatchState> state) : state_(std::move(state)) {}
        std::shared_ptr<WatchState> state_;
    };

    // From here on a write to a peer that went away is an error of that write, for the whole
    // process: SIGPIPE is ignored.
    explicit EventLoop(Loom::TaskScheduler& scheduler);
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    // Until stop(). Stopping before running is remembered.
    void run();
    void stop();
    // One round: runs what is due, waits for at least one event, `patience` at most, runs what
    // came.
    void runOnce(std::chrono::nanoseconds patience);

    Watch onSignal(int number, Callback callback);
    // While the descriptor is readable, or at its end; it must outlive the watch.
    Watch onReadable(int descriptor, Callback callback);
    // Once, `delay` from now.
    Watch onTimer(std::chrono::nanoseconds delay, Callback callback);

    // Runs every task that is due, and those that these make due.
    void settle() { scheduler_.runDue(); }

    // For what libevent does itself: listeners and buffered connections.
    event_base* base() { return base_.get(); }

  private:
    Watch watch(int descriptor, short what, const timeval* delay, Callback callback);

    Loom::TaskScheduler& scheduler_;
    std::unique_ptr<event_base, void (*)(event_base*)> base_;
    Watch alarm_;
    bool stopped_ = false;
};

// Rounded up to the next microsecond: a timer that fires early finds nothing due.
timeval toTimeval(std::chrono::nanoseconds time);

}  // namespace Agent

// The event thread: waits for descriptors, signals and timers, and drives the task scheduler.
// Everything the agent does, except answering the probes of others, happens in a callback of this
// loop or in a task that the scheduler runs between two callbacks, so nothing is locked. Owned by
// HostAgent; not thread-safe.
//
// Invariant: when the loop sleeps, no task is due, and it wakes for the next one.
#pragma once

#include <event2/event.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "platform/loom/TaskScheduler.h"

namespace Agent {

class EventLoop {
  public:
    using Callback = std::function<void()>;

    // A callback for a descriptor, a signal or a timer. It is not called any more once this object
    // is destroyed or assigned to. A callback may destroy its own registration.
    class [[nodiscard]] Registration {
      public:
        Registration() = default;
        Registration(Registration&&) = default;
        Registration& operator=(Registration&& other) noexcept;
        ~Registration();
        explicit operator bool() const { return state_ != nullptr; }

      private:
        friend class EventLoop;
        struct State;
        explicit Registration(std::shared_ptr<State> state) : state_(std::move(state)) {}
        std::shared_ptr<State> state_;
    };

    // How long the loop was busy in each of its rounds, from the first callback to the end of what
    // that made due.
    struct Busy {
        // Upper bounds in seconds; the last count is of those above.
        static constexpr std::array bounds = {0.0001, 0.00025, 0.0005, 0.001, 0.0025,
                                              0.005,  0.01,    0.025,  0.1,   1.0};
        std::array<uint64_t, bounds.size() + 1> counts{};
        double sum = 0;  // seconds
    };

    // Ignores SIGPIPE in the whole process, so that writing to a closed connection fails with an
    // error.
    explicit EventLoop(Loom::TaskScheduler& scheduler);
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    // Returns after stop(); immediately if that was called before.
    void run();
    void stop();
    // One round: waits for events for at most `patience`, and not at all while a task is due; runs
    // their callbacks and the tasks that are due then. The tasks that have not begun `roundTime`
    // after the first callback wait for the next round, so that events that have come meanwhile
    // are handled first.
    void runOnce(std::chrono::nanoseconds patience);
    static constexpr Loom::Duration roundTime = std::chrono::milliseconds(1);

    Registration onSignal(int number, Callback callback);
    // Called repeatedly while the descriptor is readable or at its end, or writable or broken. The
    // descriptor must outlive the registration.
    Registration onReadable(int descriptor, Callback callback);
    Registration onWritable(int descriptor, Callback callback);
    // Called once, `delay` from now.
    Registration onTimer(std::chrono::nanoseconds delay, Callback callback);

    const Busy& busy() const { return busy_; }
    // Called at the beginning of callbacks that libevent makes without a Registration.
    void wake() {
        if (!woken_) woken_ = scheduler_.now();
    }

    // Runs every task that is due, including those that these make due.
    void settle() { scheduler_.runDue(); }

    // For the parts of libevent used directly: listeners and buffered connections.
    event_base* base() { return base_.get(); }

  private:
    Registration add(int descriptor, short what, const timeval* delay, Callback callback);

    Loom::TaskScheduler& scheduler_;
    std::unique_ptr<event_base, void (*)(event_base*)> base_;
    std::unique_ptr<event, void (*)(event*)> alarm_;  // wakes the loop for the next task
    bool stopped_ = false;
    std::optional<Loom::Instant> woken_;  // the first callback of this round
    Busy busy_;
};

// Rounded up to the next microsecond: a timer that fires early finds nothing due.
timeval toTimeval(std::chrono::nanoseconds time);

}  // namespace Agent

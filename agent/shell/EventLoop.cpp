#include "agent/shell/EventLoop.h"

#include <algorithm>
#include <csignal>
#include <new>
#include <utility>

namespace Agent {

using std::chrono::nanoseconds;

// Shared with the callback that is running, so that it may let its watch go.
struct EventLoop::WatchState : std::enable_shared_from_this<WatchState> {
    explicit WatchState(Callback callback) : call(std::move(callback)) {}
    ~WatchState() { stop(); }
    void stop() {
        if (handle != nullptr) event_free(std::exchange(handle, nullptr));
    }
    // Through C code no error can pass: one that nobody caught ends the process here.
    static void fired(evutil_socket_t, short, void* context) noexcept {
        static_cast<WatchState*>(context)->shared_from_this()->call();
    }

    Callback call;
    event* handle = nullptr;
};

EventLoop::Watch::~Watch() {
    if (state_) state_->stop();
}

EventLoop::Watch& EventLoop::Watch::operator=(Watch&& other) noexcept {
    if (state_ && state_ != other.state_) state_->stop();
    state_ = std::move(other.state_);
    return *this;
}

timeval toTimeval(nanoseconds time) {
    const auto micros =
        std::chrono::ceil<std::chrono::microseconds>(std::max(time, nanoseconds{0}));
    return {static_cast<time_t>(micros.count() / 1'000'000),
            static_cast<suseconds_t>(micros.count() % 1'000'000)};
}

EventLoop::EventLoop(Loom::TaskScheduler& scheduler)
    : scheduler_(scheduler), base_(nullptr, event_base_free) {
    std::signal(SIGPIPE, SIG_IGN);
    std::unique_ptr<event_config, void (*)(event_config*)> config(event_config_new(),
                                                                  event_config_free);
    event_config_set_flag(config.get(), EVENT_BASE_FLAG_PRECISE_TIMER);
    base_.reset(event_base_new_with_config(config.get()));
    if (!base_) throw std::bad_alloc();
}

EventLoop::~EventLoop() = default;

void EventLoop::run() {
    while (!stopped_) runOnce(nanoseconds::max());
}

void EventLoop::stop() {
    stopped_ = true;
    event_base_loopbreak(base_.get());
}

void EventLoop::runOnce(nanoseconds patience) {
    settle();
    if (stopped_) return;
    if (const auto deadline = scheduler_.nextDeadline()) {
        patience = std::min(patience, *deadline - scheduler_.now());
    }
    if (patience != nanoseconds::max()) alarm_ = onTimer(patience, [] {});
    event_base_loop(base_.get(), EVLOOP_ONCE | EVLOOP_NO_EXIT_ON_EMPTY);
    settle();
}

EventLoop::Watch EventLoop::onSignal(int number, Callback callback) {
    return watch(number, EV_SIGNAL | EV_PERSIST, nullptr, std::move(callback));
}

EventLoop::Watch EventLoop::onReadable(int descriptor, Callback callback) {
    return watch(descriptor, EV_READ | EV_PERSIST, nullptr, std::move(callback));
}

EventLoop::Watch EventLoop::onTimer(nanoseconds delay, Callback callback) {
    const timeval time = toTimeval(delay);
    return watch(-1, 0, &time, std::move(callback));
}

EventLoop::Watch EventLoop::watch(int descriptor, short what, const timeval* delay,
                                  Callback callback) {
    auto state = std::make_shared<WatchState>(std::move(callback));
    state->handle = event_new(base_.get(), descriptor, what, &WatchState::fired, state.get());
    if (state->handle == nullptr || event_add(state->handle, delay) != 0) throw std::bad_alloc();
    return Watch(std::move(state));
}

}  // namespace Agent

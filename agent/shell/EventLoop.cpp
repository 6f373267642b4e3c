#include "agent/shell/EventLoop.h"

#include <algorithm>
#include <csignal>
#include <new>
#include <utility>

namespace Agent {

using std::chrono::nanoseconds;

// Shared with the callback while it runs, so that the callback may destroy its registration.
struct EventLoop::Registration::State : std::enable_shared_from_this<State> {
    State(EventLoop& owner, Callback callback) : loop(owner), call(std::move(callback)) {}
    ~State() { stop(); }
    void stop() {
        if (handle != nullptr) event_free(std::exchange(handle, nullptr));
    }
    // An exception must not pass through C code: an uncaught one ends the process here.
    static void fired(evutil_socket_t, short, void* context) noexcept {
        const auto state = static_cast<State*>(context)->shared_from_this();
        state->loop.wake();
        state->call();
    }

    EventLoop& loop;
    Callback call;
    event* handle = nullptr;
};

EventLoop::Registration::~Registration() {
    if (state_) state_->stop();
}

EventLoop::Registration& EventLoop::Registration::operator=(Registration&& other) noexcept {
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
    : scheduler_(scheduler), base_(nullptr, event_base_free), alarm_(nullptr, event_free) {
    std::signal(SIGPIPE, SIG_IGN);
    std::unique_ptr<event_config, void (*)(event_config*)> config(event_config_new(),
                                                                  event_config_free);
    event_config_set_flag(config.get(), EVENT_BASE_FLAG_PRECISE_TIMER);
    base_.reset(event_base_new_with_config(config.get()));
    if (!base_) throw std::bad_alloc();
    alarm_.reset(event_new(
        base_.get(), -1, 0, [](evutil_socket_t, short, void*) {}, nullptr));
    if (!alarm_) throw std::bad_alloc();
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
    if (const auto deadline = scheduler_.nextDeadline()) {
        patience = std::min(patience, *deadline - scheduler_.now());
    }
    const timeval time = toTimeval(patience);
    if (patience != nanoseconds::max()) event_add(alarm_.get(), &time);
    event_base_loop(base_.get(), EVLOOP_ONCE | EVLOOP_NO_EXIT_ON_EMPTY);
    event_del(alarm_.get());
    wake();  // at the latest for what is due now
    scheduler_.runDue(*woken_ + roundTime);
    const double spent =
        std::chrono::duration<double>(scheduler_.now() - *std::exchange(woken_, {})).count();
    busy_.sum += spent;
    ++busy_.counts[static_cast<size_t>(std::ranges::lower_bound(Busy::bounds, spent) -
                                       Busy::bounds.begin())];
}

EventLoop::Registration EventLoop::onSignal(int number, Callback callback) {
    return add(number, EV_SIGNAL | EV_PERSIST, nullptr, std::move(callback));
}

EventLoop::Registration EventLoop::onReadable(int descriptor, Callback callback) {
    return add(descriptor, EV_READ | EV_PERSIST, nullptr, std::move(callback));
}

EventLoop::Registration EventLoop::onWritable(int descriptor, Callback callback) {
    return add(descriptor, EV_WRITE | EV_PERSIST, nullptr, std::move(callback));
}

EventLoop::Registration EventLoop::onTimer(nanoseconds delay, Callback callback) {
    const timeval time = toTimeval(delay);
    return add(-1, 0, &time, std::move(callback));
}

EventLoop::Registration EventLoop::add(int descriptor, short what, const timeval* delay,
                                       Callback callback) {
    auto state = std::make_shared<Registration::State>(*this, std::move(callback));
    state->handle =
        event_new(base_.get(), descriptor, what, &Registration::State::fired, state.get());
    if (state->handle == nullptr || event_add(state->handle, delay) != 0) throw std::bad_alloc();
    return Registration(std::move(state));
}

}  // namespace Agent

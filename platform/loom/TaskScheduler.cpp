#include "platform/loom/TaskScheduler.h"

#include <utility>

namespace Loom {

TaskScheduler::~TaskScheduler() {
    while (posted_.linked()) posted_.next().unlink();
    for (const Slot& slot : timers_) slot.timer->slot_ = Timer::unarmed;
}

void TaskScheduler::runDue(Instant end) {
    struct Running {
        explicit Running(bool& flag) : flag(flag), before(std::exchange(flag, true)) {}
        ~Running() { flag = before; }
        bool& flag;
        const bool before;
    } const running(running_);

    for (int round = 0; round < maxRounds; ++round) {
        if (std::exchange(ended_, false)) ++round_;
        while (runTask())
            if (reached(end)) return;
        ended_ = true;
        const bool ranTimer = !timers_.empty() && runTimers(end);
        if ((!posted_.linked() && !ranTimer) || reached(end)) return;
    }
}

// Runs the first task, if it was posted before this round.
bool TaskScheduler::runTask() {
    if (!posted_.linked()) return false;
    Task& task = static_cast<Task&>(posted_.next());
    if (task.round_ == round_) return false;
    task.unlink();
    const Callback callback = task.callback_;  // the task may die before its function returns
    callback();
    return true;
}

// Runs the timers that are due now. Returns whether there was one. Apart from runDue(), which has
// less to save then.
[[gnu::noinline]] bool TaskScheduler::runTimers(Instant end) {
    const Instant started = now();
    const uint64_t lastArmed = sequence_;
    bool ran = false;
    while (!(ran && reached(end)) && runTimer(started, lastArmed)) ran = true;
    return ran;
}

bool TaskScheduler::runTimer(Instant now, uint64_t lastArmed) {
    Timer* const timer = earliest();
    if (!timer || timer->deadline_ > now || timer->sequence_ > lastArmed) return false;
    withdraw(*timer);
    const Callback callback = timer->callback_;
    callback();
    return true;
}

std::optional<Instant> TaskScheduler::nextDeadline() {
    if (posted_.linked()) return Instant{};
    const Timer* const timer = earliest();
    return timer ? std::optional(timer->deadline_) : std::nullopt;
}

void TaskScheduler::file(Timer& timer) {
    if (!timer.armed()) {
        timers_.emplace_back();
        timer.slot_ = timers_.size() - 1;
    }
    timer.filed_ = timer.deadline_;
    siftUp(timer.slot_, {timer.deadline_, timer.sequence_, &timer});
    if (timer.slot_ == 0 && !running_) wakeup();
}

void TaskScheduler::withdraw(Timer& timer) {
    const size_t at = std::exchange(timer.slot_, Timer::unarmed);
    const Slot moved = timers_.back();
    timers_.pop_back();
    if (at == timers_.size()) return;
    if (at > 0 && moved.before(timers_[(at - 1) / 2])) {
        siftUp(at, moved);
    } else {
        siftDown(at, moved);
    }
}

// The timer with the earliest deadline. A timer whose deadline moved after it was filed is filed
// anew when it reaches the top of the heap.
Timer* TaskScheduler::earliest() {
    while (!timers_.empty()) {
        Timer& timer = *timers_.front().timer;
        if (timers_.front().sequence == timer.sequence_) return &timer;
        timer.filed_ = timer.deadline_;
        siftDown(0, {timer.deadline_, timer.sequence_, &timer});
    }
    return nullptr;
}

void TaskScheduler::place(size_t at, const Slot& slot) {
    timers_[at] = slot;
    slot.timer->slot_ = at;
}

void TaskScheduler::siftUp(size_t at, const Slot& slot) {
    for (; at > 0; at = (at - 1) / 2) {
        const Slot& parent = timers_[(at - 1) / 2];
        if (!slot.before(parent)) break;
        place(at, parent);
    }
    place(at, slot);
}

void TaskScheduler::siftDown(size_t at, const Slot& slot) {
    for (;;) {
        size_t child = 2 * at + 1;
        if (child >= timers_.size()) break;
        if (child + 1 < timers_.size() && timers_[child + 1].before(timers_[child])) ++child;
        if (!timers_[child].before(slot)) break;
        place(at, timers_[child]);
        at = child;
    }
    place(at, slot);
}

}  // namespace Loom

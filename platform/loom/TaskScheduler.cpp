#include "platform/loom/TaskScheduler.h"

#include <utility>

namespace Loom {

TaskScheduler::~TaskScheduler() {
    for (Link* list : {&round_, &posted_}) {
        while (list->linked()) list->next().unlink();
    }
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
        // Tasks left over from a round that an error or the end of the time has ended run first.
        if (!round_.linked() && posted_.linked()) {
            round_.linkBefore(posted_.next());
            posted_.unlink();
        }
        while (round_.linked()) {
            runTask(static_cast<Task&>(round_.next()));
            if (reached(end)) return;
        }
        bool ranTimer = false;
        if (!timers_.empty()) {
            const Instant started = now();
            const uint64_t lastArmed = sequence_;
            while (runTimer(started, lastArmed)) {
                ranTimer = true;
                if (reached(end)) return;
            }
        }
        if (!posted_.linked() && !ranTimer) return;
    }
}

void TaskScheduler::runTask(Task& task) {
    task.unlink();
    const Callback callback = task.callback_;  // the task may die before its function returns
    callback();
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
    if (posted_.linked() || round_.linked()) return Instant{};
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

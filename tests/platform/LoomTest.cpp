// The task scheduler: order, what may happen while something runs, and when the host is woken.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/loom/TaskScheduler.h"

namespace {

using namespace std::chrono_literals;
using Loom::Instant;

// A user of the scheduler: notes its name when it runs, then does what the test says.
struct Job {
    Job(std::vector<std::string>& log, std::string name, std::function<void()> action = {})
        : log(log), name(std::move(name)), action(std::move(action)) {}
    void run() {
        log.push_back(name);
        if (const auto act = action) act();
    }
    std::vector<std::string>& log;
    std::string name;
    std::function<void()> action;
};
struct TaskJob : Job {
    using Job::Job;
    Loom::Task task{Loom::call<&Job::run>(static_cast<Job&>(*this))};
};
struct TimerJob : Job {
    template <class... Args>
    explicit TimerJob(Loom::TaskScheduler& scheduler, Args&&... args)
        : Job(std::forward<Args>(args)...),
          timer(scheduler, Loom::call<&Job::run>(static_cast<Job&>(*this))) {}
    Loom::Timer timer;
};

using Log = std::vector<std::string>;

class Scheduler : public testing::Test {
  protected:
    Scheduler() {
        scheduler.wakeupIs({[](void* count) { ++*static_cast<int*>(count); }, &woken});
    }
    // What ran since the last call.
    Log ran() {
        log.clear();
        scheduler.runDue();
        return log;
    }
    Log log;
    int woken = 0;
    Loom::ManualClock clock;
    Loom::TaskScheduler scheduler{clock};
};

TEST_F(Scheduler, TasksRunOnceInTheOrderOfPosting) {
    TaskJob a(log, "a"), b(log, "b"), c(log, "c");
    for (auto* job : {&b, &a, &b, &c}) scheduler.post(job->task);
    EXPECT_EQ(ran(), (Log{"b", "a", "c"}));
    EXPECT_EQ(ran(), Log{});
    for (auto* job : {&a, &b, &c}) scheduler.post(job->task);
    b.task.cancel();
    a.action = [&] {
        scheduler.post(b.task);
        scheduler.runDue();  // finishes the round first
        log.push_back("back");
    };
    EXPECT_EQ(ran(), (Log{"a", "c", "b", "back"}));
    EXPECT_EQ(scheduler.nextDeadline(), std::nullopt);
}

TEST_F(Scheduler, TasksMayPostAndDestroyAsTheyRun) {
    auto victim = std::make_unique<TaskJob>(log, "victim");
    auto suicide = std::make_unique<TaskJob>(log, "suicide");
    suicide->action = [&] { suicide.reset(); };
    TaskJob later(log, "later");
    TaskJob last(log, "last");
    int again = 2;
    TaskJob first(log, "first");
    first.action = [&] {
        victim.reset();
        if (again-- > 0) scheduler.post(first.task);
        scheduler.post(later.task);
        scheduler.post(last.task);  // queued already: keeps its place
    };
    for (auto* task : {&first.task, &victim->task, &suicide->task, &last.task}) {
        scheduler.post(*task);
    }
    EXPECT_EQ(ran(), (Log{"first", "suicide", "last",  //
                          "first", "later",            //
                          "first", "last",             //
                          "later"}));
}

TEST_F(Scheduler, TasksAndTimersThatComeBackTakeTurns) {
    int rounds = 3;
    TaskJob task(log, "task");
    task.action = [&] {
        if (--rounds > 0) scheduler.post(task.task);
    };
    TimerJob again(scheduler, log, "again");
    again.action = [&] {
        if (rounds > 0) again.timer.armIn(0s);
    };
    TimerJob once(scheduler, log, "once");
    scheduler.post(task.task);
    again.timer.armIn(0s);
    once.timer.armIn(0s);
    EXPECT_EQ(ran(), (Log{"task", "again", "once", "task", "again", "task", "again"}));
}

TEST_F(Scheduler, AnErrorLeavesTheRestDue) {
    TaskJob a(log, "a"), bad(log, "bad", [] { throw std::runtime_error("no"); }), c(log, "c");
    TimerJob timer(scheduler, log, "timer");
    for (auto* job : {&a, &bad, &c}) scheduler.post(job->task);
    timer.timer.armIn(0s);
    EXPECT_THROW(scheduler.runDue(), std::runtime_error);
    EXPECT_EQ(log, (Log{"a", "bad"}));
    const int before = woken;
    scheduler.post(a.task);
    EXPECT_GT(woken, before);
    EXPECT_EQ(ran(), (Log{"c", "timer", "a"}));
}

TEST_F(Scheduler, HostIsWokenForWhatComesUpEarlier) {
    TimerJob a(scheduler, log, "a"), b(scheduler, log, "b");
    TaskJob inner(log, "inner");
    TaskJob task(log, "task", [&] { scheduler.post(inner.task); });
    const auto wakes = [&](const auto& action) {
        const int before = woken;
        action();
        return woken > before;
    };
    EXPECT_TRUE(wakes([&] { a.timer.armIn(10ms); }));
    EXPECT_FALSE(wakes([&] { b.timer.armIn(20ms); }));
    EXPECT_FALSE(wakes([&] { a.timer.armIn(30ms); }));
    EXPECT_EQ(scheduler.nextDeadline(), Instant(20ms));
    EXPECT_TRUE(wakes([&] { a.timer.armIn(5ms); }));
    EXPECT_EQ(scheduler.nextDeadline(), Instant(5ms));
    EXPECT_TRUE(wakes([&] { scheduler.post(task.task); }));
    EXPECT_FALSE(wakes([&] { scheduler.runDue(); }));
}

TEST(SchedulerEnd, LetsGoOfWhatWaits) {
    Log log;
    Loom::ManualClock clock;
    TaskJob task(log, "task");
    std::unique_ptr<TimerJob> timer;
    {
        Loom::TaskScheduler scheduler(clock);
        timer = std::make_unique<TimerJob>(scheduler, log, "timer");
        timer->timer.armIn(1s);
        scheduler.post(task.task);
    }
    EXPECT_FALSE(task.task.queued() || timer->timer.armed());
    timer.reset();
    EXPECT_EQ(log, Log{});
}

// Timers armed, moved both ways, disarmed, destroyed and created at random, against a plain list.
TEST_F(Scheduler, TimersFireAsAPlainListSays) {
    constexpr unsigned seed = 90210;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    struct Expected {
        Instant deadline;
        int armedAs;
        std::string name;
        auto operator<=>(const Expected&) const = default;
    };
    std::vector<Expected> model;
    std::vector<std::unique_ptr<TimerJob>> jobs(40);
    int sequence = 0;
    for (int round = 0; round < 50000; ++round) {
        const size_t index = random() % jobs.size();
        const std::string name = std::to_string(index);
        auto& job = jobs[index];
        const unsigned choice = random() % 100;
        if (choice < 80) {
            std::erase_if(model, [&](const Expected& entry) { return entry.name == name; });
        }
        if (choice < 5 || (choice < 80 && !job)) {
            job.reset();
            job = std::make_unique<TimerJob>(scheduler, log, name);
        } else if (choice < 65) {
            const Instant deadline = clock.now() + random() % 50 * 1ms;
            model.push_back({deadline, ++sequence, name});
            job->timer.armAt(deadline);
        } else if (choice < 80) {
            job->timer.disarm();
        } else {
            clock.advance(random() % 8 * 1ms);
            std::sort(model.begin(), model.end());
            Log expected;
            for (; !model.empty() && model.front().deadline <= clock.now();
                 model.erase(model.begin()))
                expected.push_back(model.front().name);
            ASSERT_EQ(ran(), expected) << "round " << round;
        }
        const auto earliest = std::min_element(model.begin(), model.end());
        ASSERT_EQ(scheduler.nextDeadline(),
                  earliest == model.end() ? std::nullopt : std::optional(earliest->deadline));
    }
}

}  // namespace

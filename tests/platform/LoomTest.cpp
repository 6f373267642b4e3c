// The task scheduler: order, what may happen while something runs, and when the host is woken.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <random>

#include "platform/loom/TaskScheduler.h"

namespace {

using namespace std::chrono_literals;
using Loom::Instant;

using Log = std::vector<std::string>;

// A user of the scheduler: notes its name when its task or timer runs, then does what the test
// says.
struct Job {
    Job(Loom::TaskScheduler& scheduler, Log& log_, std::string name_,
        std::function<void()> act = {})
        : log(log_),
          name(std::move(name_)),
          action(std::move(act)),
          timer(scheduler, Loom::call<&Job::run>(*this)) {}
    void run() {
        log.push_back(name);
        if (const auto act = action) act();
    }
    Log& log;
    std::string name;
    std::function<void()> action;
    Loom::Task task{Loom::call<&Job::run>(*this)};
    Loom::Timer timer;
};

class Scheduler : public testing::Test {
  protected:
    Scheduler() {
        scheduler->wakeupIs({[](void* count) { ++*static_cast<int*>(count); }, &woken});
    }
    Job job(std::string name, std::function<void()> action = {}) {
        return {*scheduler, log, std::move(name), std::move(action)};
    }
    void post(Job& each) { scheduler->post(each.task); }
    // What ran since the last call.
    Log ran() {
        log.clear();
        scheduler->runDue();
        return log;
    }
    Log log;
    int woken = 0;
    Loom::ManualClock clock;
    std::optional<Loom::TaskScheduler> scheduler{clock};
};

TEST_F(Scheduler, TasksRunInOrderWhileTheyPostCancelDestroyAndThrow) {
    auto victim = std::make_unique<Job>(*scheduler, log, "victim");
    auto suicide = std::make_unique<Job>(*scheduler, log, "suicide");
    suicide->action = [&] { suicide.reset(); };
    Job cancelled = job("cancelled"), later = job("later"), last = job("last");
    Job bad = job("bad", [] { throw 1; });
    int again = 2;
    Job first = job("first");
    first.action = [&] {
        victim.reset();
        if (again == 2) cancelled.task.cancel();
        if (again-- > 0) post(first);
        post(later);
        post(last);  // queued already: keeps its place
    };
    for (auto* each : {&first, victim.get(), suicide.get(), &cancelled, &bad, &last}) post(*each);
    EXPECT_THROW(ran(), int);
    EXPECT_EQ(log, (Log{"first", "suicide", "bad"}));
    const int before = woken;
    post(cancelled);
    EXPECT_GT(woken, before);
    later.action = [&] {
        later.action = {};
        scheduler->runDue();  // finishes the round first
        log.push_back("back");
    };
    EXPECT_EQ(ran(), (Log{"last",                        // left by the error
                          "first", "later",              //
                          "cancelled", "first", "last",  //
                          "later", "back"}));
    EXPECT_EQ(scheduler->nextDeadline(), std::nullopt);
}

// Work that makes itself due again for ever takes turns with the rest, and the host has its own.
TEST_F(Scheduler, EndlessWorkHoldsNobodyUp) {
    Job task = job("task"), timer = job("timer"), once = job("once");
    task.action = [&] { post(task); };
    timer.action = [&] { timer.timer.armIn(0s); };
    post(task);
    timer.timer.armIn(0s);
    once.timer.armIn(0s);
    const Log first = ran();
    EXPECT_EQ(Log(first.begin(), first.begin() + 5),
              (Log{"task", "timer", "once", "task", "timer"}));
    EXPECT_EQ(first.size(), 2u * scheduler->maxRounds + 1);
    EXPECT_LE(scheduler->nextDeadline(), clock.now()) << "the host does not wait";
    EXPECT_EQ(ran().size(), 2u * scheduler->maxRounds);
    once.action = timer.action = [&] { clock.advance(2s); };
    task.action = [&] { clock.advance(2s), post(task); };
    post(once);
    for (const char* each : {"task", "once", "timer", "task"}) {
        log.clear();
        scheduler->runDue(clock.now() + 1s);
        EXPECT_EQ(log, Log{each}) << "the time is over";
    }
}

TEST_F(Scheduler, TakesAnyDeadlineAndTimersOutliveIt) {
    Job a = job("a");
    a.timer.armIn(Loom::Duration::max());
    EXPECT_EQ(scheduler->nextDeadline(), Instant::max());
    a.timer.armIn(Loom::Duration::min());
    EXPECT_LE(scheduler->nextDeadline(), clock.now());
    post(a);
    scheduler.reset();
    EXPECT_FALSE(a.task.queued() || a.timer.armed());
}

// Timers armed, moved both ways, disarmed, destroyed and created at random, against a plain list.
// The host is woken for what is due earlier, and for nothing else.
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
    std::vector<std::unique_ptr<Job>> jobs(40);
    int sequence = 0;
    for (int round = 0; round < 50000; ++round) {
        const size_t index = random() % jobs.size();
        const std::string name = std::to_string(index);
        auto& job = jobs[index];
        const unsigned choice = random() % 100;
        const auto before = scheduler->nextDeadline().value_or(Instant::max());
        woken = 0;
        if (choice < 80)
            std::erase_if(model, [&](const Expected& entry) { return entry.name == name; });
        if (choice < 5 || (choice < 80 && !job)) {
            job.reset();
            job = std::make_unique<Job>(*scheduler, log, name);
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
        ASSERT_EQ(woken > 0, earliest != model.end() && earliest->deadline < before);
        ASSERT_EQ(scheduler->nextDeadline(),
                  earliest == model.end() ? std::nullopt : std::optional(earliest->deadline));
    }
}

}  // namespace

// A task posted and run, a timer re-armed.
#include <memory>

#include "bench/Bench.h"
#include "platform/loom/TaskScheduler.h"

#ifdef BENCH_LIBEVENT
#include <event2/event.h>
#endif
#ifdef BENCH_LIBUV
#include <uv.h>
#endif
#ifdef BENCH_ASIO
#define ASIO_DISABLE_THREADS
#include <asio.hpp>
#endif

namespace Bench {
namespace {

using namespace std::chrono_literals;

struct Work {
    void run() { ++runs; }
    U64 runs = 0;
};

void require(benchmark::State& state, const Work& work) {
    if (work.runs != U64(state.iterations())) state.SkipWithError("not each task was run");
}

void task(benchmark::State& state) {
    const Loom::ManualClock clock;
    Loom::TaskScheduler scheduler(clock);
    Work work;
    Loom::Task task(Loom::call<&Work::run>(work));
    for (auto _ : state) {
        opaque(&scheduler)->post(task);
        scheduler.runDue();
    }
    require(state, work);
}
void taskLimit(benchmark::State& state) {
    Work work;
    Loom::Callback call = Loom::call<&Work::run>(work);
    for (auto _ : state) (*opaque(&call))();
    require(state, work);
}

// Each time to a later deadline, like a timer that detects silence; among seven other timers.
template <class Arm>
void rearm(benchmark::State& state, Arm&& arm) {
    U64 round = 0;
    for (auto _ : state) arm(std::chrono::milliseconds(1000 + ++round % 1024));
}
void timer(benchmark::State& state) {
    const Loom::ManualClock clock;
    Loom::TaskScheduler scheduler(clock);
    Work work;
    std::vector<std::unique_ptr<Loom::Timer>> timers;
    for (int i = 0; i < 8; ++i) {
        timers.push_back(std::make_unique<Loom::Timer>(scheduler, Loom::call<&Work::run>(work)));
        timers.back()->armIn(i * 1s);
    }
    Loom::Timer* const timer = timers[4].get();
    rearm(state, [&](auto delay) { opaque(timer)->armAt(Loom::Instant(5s) + delay); });
}
void timerLimit(benchmark::State& state) {
    Loom::Instant deadline;
    rearm(state, [&](auto delay) { *opaque(&deadline) = Loom::Instant(delay); });
}

BENCHMARK(task)->Name("task/ours");
BENCHMARK(taskLimit)->Name("task/limit");
BENCHMARK(timer)->Name("timer/ours");
BENCHMARK(timerLimit)->Name("timer/limit");

#ifdef BENCH_LIBEVENT
struct Libevent {
    event_base* base = event_base_new();
    ~Libevent() { event_base_free(base); }
    static void run(evutil_socket_t, short, void* work) { static_cast<Work*>(work)->run(); }
};
void taskLibevent(benchmark::State& state) {
    Libevent loop;
    Work work;
    event* task = event_new(loop.base, -1, 0, &Libevent::run, &work);
    for (auto _ : state) {
        event_active(task, EV_TIMEOUT, 0);
        event_base_loop(loop.base, EVLOOP_NONBLOCK);
    }
    event_free(task);
    require(state, work);
}
void timerLibevent(benchmark::State& state) {
    Libevent loop;
    Work work;
    std::vector<event*> timers;
    for (int i = 0; i < 8; ++i) {
        timers.push_back(evtimer_new(loop.base, &Libevent::run, &work));
        const timeval delay{1000 + i, 0};
        evtimer_add(timers.back(), &delay);
    }
    rearm(state, [&](std::chrono::milliseconds delay) {
        const timeval time{delay.count() / 1000 + 2000, delay.count() % 1000 * 1000};
        evtimer_add(timers[4], &time);
    });
    for (event* timer : timers) event_free(timer);
}
BENCHMARK(taskLibevent)->Name("task/libevent");
BENCHMARK(timerLibevent)->Name("timer/libevent");
#endif

#ifdef BENCH_LIBUV
// libuv has no task that runs once; the closest is a handle that is started and stops itself.
void taskLibuv(benchmark::State& state) {
    uv_loop_t loop;
    uv_loop_init(&loop);
    Work work;
    uv_idle_t task;
    uv_idle_init(&loop, &task);
    task.data = &work;
    for (auto _ : state) {
        uv_idle_start(&task, [](uv_idle_t* handle) {
            static_cast<Work*>(handle->data)->run();
            uv_idle_stop(handle);
        });
        uv_run(&loop, UV_RUN_NOWAIT);
    }
    require(state, work);
    uv_close(reinterpret_cast<uv_handle_t*>(&task), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
}
void timerLibuv(benchmark::State& state) {
    uv_loop_t loop;
    uv_loop_init(&loop);
    uv_timer_t timers[8];
    U64 i = 0;
    for (uv_timer_t& timer : timers) {
        uv_timer_init(&loop, &timer);
        uv_timer_start(
            &timer, [](uv_timer_t*) {}, 1000000 + 1000 * ++i, 0);
    }
    rearm(state, [&](std::chrono::milliseconds delay) {
        uv_timer_start(
            &timers[4], [](uv_timer_t*) {}, 2000000 + U64(delay.count()), 0);
    });
    for (uv_timer_t& timer : timers) uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    uv_loop_close(&loop);
}
BENCHMARK(taskLibuv)->Name("task/libuv");
BENCHMARK(timerLibuv)->Name("timer/libuv");
#endif

#ifdef BENCH_ASIO
void taskAsio(benchmark::State& state) {
    asio::io_context context(1);
    Work work;
    for (auto _ : state) {
        asio::post(context, [&work] { work.run(); });
        context.restart();
        context.poll();
    }
    require(state, work);
}
void timerAsio(benchmark::State& state) {
    asio::io_context context(1);
    std::vector<asio::steady_timer> timers;
    for (int i = 0; i < 8; ++i) {
        timers.emplace_back(context, 1000s + i * 1s);
        timers.back().async_wait([](const asio::error_code&) {});
    }
    rearm(state, [&](std::chrono::milliseconds delay) {
        timers[4].expires_after(2000s + delay);
        timers[4].async_wait([](const asio::error_code&) {});
        context.poll();
    });
}
BENCHMARK(taskAsio)->Name("task/asio");
BENCHMARK(timerAsio)->Name("timer/asio");
#endif

}  // namespace
}  // namespace Bench

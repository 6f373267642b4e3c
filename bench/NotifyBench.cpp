// Setting an attribute with no, one or eight subscribers; subscribing; counted pointers.
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/Allocations.h"
#include "bench/Bench.h"
#include "platform/vel/Entity.h"

#ifdef BENCH_SIGNALS2
#include <boost/signals2.hpp>
#endif
#ifdef BENCH_SIGCXX
#include <sigc++/sigc++.h>
#endif
#ifdef BENCH_QT
#include "bench/QtSignal.h"
#endif

namespace Bench {

class Probe : public Vel::Entity {
    VEL_ENTITY(Probe, Vel::Name, name)
    VEL_ATTRIBUTE(U32, value, 0)
};
VEL_DEFINE(Bench, Probe)

namespace {

// A subscriber like a reactor, which may be released while it is called.
struct Sink : Vel::Object {
    void handle() { ++calls; }
    U64 calls = 0;
};

// Each side: a value with subscribers. Destroying a connection ends it.
struct Ours {
    using Connection = Vel::Subscription;
    Vel::Ptr<Probe> probe = Vel::make<Probe>("probe");
    Connection connect(Sink& sink) {
        return Vel::Subscription::to<&Sink::handle>(*probe, Probe::valueAttr, &sink);
    }
    void valueIs(U32 v) { probe->valueIs(v); }
};

// The peers get the same comparison and store as ours before they notify.
template <class Signal>
struct Value : Signal {
    U32 value = 0;
    void valueIs(U32 v) {
        if (v == value) return;
        value = v;
        this->emit();
    }
};

struct NoSignal {
    void emit() {}
};

// The connection made last ends first.
template <class Subscriber>
struct Vector {
    struct Connection {
        Vector* vector = nullptr;
        explicit Connection(Vector* v) : vector(v) {}
        Connection(Connection&& other) noexcept : vector(std::exchange(other.vector, nullptr)) {}
        ~Connection() {
            if (vector) vector->subscribers.pop_back();
        }
    };
    std::vector<Subscriber> subscribers;
    Connection connect(Sink& sink) {
        subscribers.push_back({[s = &sink] { s->handle(); }});
        return Connection(this);
    }
    void emit() {
        for (const Subscriber& s : subscribers) s();
    }
};
using Functions = Vector<std::function<void()>>;

struct FunctionPointer {
    void (*function)(void*);
    void* object;
};
struct Raw : Vector<FunctionPointer> {
    Connection connect(Sink& sink) {
        subscribers.push_back({[](void* s) { static_cast<Sink*>(s)->handle(); }, &sink});
        return Connection(this);
    }
    void emit() {
        for (const FunctionPointer& s : subscribers) s.function(s.object);
    }
};

#ifdef BENCH_SIGNALS2
struct Signals2 {
    using Connection = boost::signals2::scoped_connection;
    boost::signals2::signal_type<
        void(), boost::signals2::keywords::mutex_type<boost::signals2::dummy_mutex>>::type signal;
    Connection connect(Sink& sink) {
        return signal.connect([s = &sink] { s->handle(); });
    }
    void emit() { signal(); }
};
#endif
#ifdef BENCH_SIGCXX
struct Sigcxx {
    struct Connection {
        sigc::connection connection;
        explicit Connection(sigc::connection c) : connection(std::move(c)) {}
        Connection(Connection&& other) noexcept { std::swap(connection, other.connection); }
        ~Connection() { connection.disconnect(); }
    };
    sigc::signal<void> signal;
    Connection connect(Sink& sink) {
        return Connection(signal.connect([s = &sink] { s->handle(); }));
    }
    void emit() { signal.emit(); }
};
#endif
#ifdef BENCH_QT
struct Qt {
    struct Connection {
        QMetaObject::Connection connection;
        explicit Connection(QMetaObject::Connection c) : connection(std::move(c)) {}
        Connection(Connection&& other) noexcept { std::swap(connection, other.connection); }
        ~Connection() { QObject::disconnect(connection); }
    };
    QtSignal signal;
    Connection connect(Sink& sink) {
        return Connection(
            QObject::connect(&signal, &QtSignal::emitted, [s = &sink] { s->handle(); }));
    }
    void emit() { Q_EMIT signal.emitted(); }
};
#endif

template <class Side>
void set(benchmark::State& state, U32 step) {
    Side side;
    U32 value = 1;
    side.valueIs(value);
    for (auto _ : state) opaque(&side)->valueIs(value += step);
}

template <class Side>
void notify(benchmark::State& state, size_t subscribers) {
    Side side;
    std::vector<Vel::Ptr<Sink>> sinks;
    std::vector<typename Side::Connection> connections;
    for (size_t i = 0; i < subscribers; ++i) {
        sinks.push_back(Vel::make<Sink>());
        connections.push_back(side.connect(*sinks.back()));
    }
    U32 value = 0;
    for (auto _ : state) opaque(&side)->valueIs(++value);
    for (const auto& sink : sinks)
        if (sink->calls != U64(state.iterations()))
            state.SkipWithError("a subscriber was not called");
    while (!connections.empty()) connections.pop_back();
}

template <class Side>
void subscribe(benchmark::State& state) {
    Side side;
    const auto sink = Vel::make<Sink>();
    const auto before = allocations();
    for (auto _ : state) {
        auto connection = opaque(&side)->connect(*sink);
        benchmark::DoNotOptimize(connection);
    }
    state.counters["allocations"] =
        static_cast<double>(allocations() - before) / static_cast<double>(state.iterations());
}

template <class Pointer>
void copy(benchmark::State& state, const Pointer& pointer) {
    const Pointer* from = &pointer;
    for (auto _ : state) {
        Pointer copy = *opaque(from);
        benchmark::DoNotOptimize(copy);
    }
}

void copyShared(benchmark::State& state) {
    std::thread([] {}).join();  // from here on the counts are atomic
    copy(state, std::make_shared<int>());
}

template <class Side>
void addSignal(const std::string& side) {
    for (const size_t n : {1, 8})
        benchmark::RegisterBenchmark(("notify-" + std::to_string(n) + "/" + side).c_str(),
                                     [n](auto& state) { notify<Side>(state, n); });
    benchmark::RegisterBenchmark(("subscribe/" + side).c_str(), subscribe<Side>);
}
template <class Side>
void addSet(const std::string& side) {
    benchmark::RegisterBenchmark(("set/" + side).c_str(), [](auto& s) { set<Side>(s, 1); });
    benchmark::RegisterBenchmark(("set-equal/" + side).c_str(), [](auto& s) { set<Side>(s, 0); });
}

const bool added = [] {
    addSet<Ours>("ours");
    addSet<Value<NoSignal>>("limit");
    addSignal<Ours>("ours");
    addSignal<Value<Raw>>("limit");
#ifdef BENCH_SIGNALS2
    addSignal<Value<Signals2>>("Boost.Signals2");
#endif
#ifdef BENCH_SIGCXX
    addSignal<Value<Sigcxx>>("sigc++");
#endif
    addSignal<Value<Functions>>("std::function");
#ifdef BENCH_QT
    addSignal<Value<Qt>>("Qt 5");
#endif
    return true;
}();

BENCHMARK_CAPTURE(copy, , Vel::make<Sink>())->Name("pointer/ours");
BENCHMARK_CAPTURE(copy, , static_cast<Sink*>(nullptr))->Name("pointer/limit");
BENCHMARK(copyShared)->Name("pointer/std::shared_ptr");

}  // namespace
}  // namespace Bench

// The whole library: one event from end to end, a failing interface, switching on the container, a
// show command.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bench/Bench.h"
#include "bench/FullSize.h"
#include "bench/RunDirectory.h"
#include "platform/trace/Duolog.h"

#if defined(BENCH_SIGNALS2) && defined(BENCH_SPDLOG) && defined(BENCH_LMDB)
#define BENCH_STACK
#include <lmdb.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/ringbuffer_sink.h>

#include <boost/signals2.hpp>
#endif

namespace Bench {
namespace {

using Nav::HwPathInfo;
using Shard::Fib::Via;

void event(benchmark::State& state, int level) {
    FullRouter router;
    requireFull(router);
    const auto& paths = *router.in.navStatusDir->navPathStatusDir()->pathStatus("default");
    Duolog::levelIs("*", level);
    U32 path = 0, hop = 0;
    for (auto _ : state) {
        path = (path + 1) % router.size.paths();
        hop += path == 0;
        router.fecChanges(path, hop);
    }
    Duolog::levelIs("*", Duolog::Facility::defaultLevel);
    const auto* status = paths.pathStatusEntry(router.pathKey(path));
    if (!status || status->pathInfo().via != router.via(path, hop))
        state.SkipWithError("the path was not published");
}

// The same as one function over arrays in which every position is known in advance.
struct Flat {
    struct Fec {
        U32 path;
        Via via;
    };
    struct Path {
        Netz::IntfId intf;
        U32 index;
        Nav::PathType type;
        HwPathInfo published;
    };
    std::vector<Fec> fecs;
    std::vector<Path> paths;

    explicit Flat(const FullRouter& router) {
        for (U32 path = 0; path < router.size.paths(); ++path) {
            fecs.push_back({path, router.via(path)});
            paths.push_back({FullRouter::intf(router.interfaceOf(path)),
                             path + 1,
                             Nav::PathType::unsecuredPath,
                             {}});
        }
    }
    void fecChanges(U32 fec, const Via& via) {
        fecs[fec].via = via;
        Path& path = paths[fecs[fec].path];
        if (via.intfId != path.intf) return;
        path.published = {path.type, Nav::PathState::resolved, path.index, via};
    }
};

std::vector<Via> viasOf(const FullRouter& router) {
    std::vector<Via> vias;
    for (U32 path = 0; path < router.size.paths(); ++path) vias.push_back(router.via(path, 2));
    return vias;
}

void eventLimit(benchmark::State& state) {
    const FullRouter router;
    Flat flat(router);
    const auto vias = viasOf(router);
    U32 path = 0;
    for (auto _ : state) {
        path = (path + 1) % router.size.paths();
        opaque(&flat)->fecChanges(path, vias[path]);
    }
}

#ifdef BENCH_STACK
// The same with the usual components: the FEC in a shared database, a signal for it, a line of
// trace for each decision of our handlers, the status, and a signal for that.
void eventStack(benchmark::State& state) {
    namespace signals = boost::signals2;
    using Signal =
        signals::signal_type<void(U32), signals::keywords::mutex_type<signals::dummy_mutex>>::type;
    const FullRouter router;
    Flat flat(router);
    const auto vias = viasOf(router);
    RunDirectory directory;
    MDB_env* env;
    mdb_env_create(&env);
    mdb_env_open(env, directory.path().c_str(), MDB_NOSYNC | MDB_WRITEMAP, 0600);
    MDB_txn* txn;
    MDB_dbi fecs;
    mdb_txn_begin(env, nullptr, 0, &txn);
    mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &fecs);
    mdb_txn_commit(txn);
    spdlog::logger log("bench", std::make_shared<spdlog::sinks::ringbuffer_sink_st>(1024));
    Signal fecChanged, statusChanged;
    U64 notified = 0;
    fecChanged.connect([&](U32 fec) {
        log.info("Adding fec {} to the backlog", fec);
        flat.fecChanges(fec, vias[fec]);
        log.info("Resolved path {} pathState: {}", fec, 1);
        statusChanged(fec);
    });
    statusChanged.connect([&](U32) { ++notified; });
    U32 path = 0;
    for (auto _ : state) {
        path = (path + 1) % router.size.paths();
        mdb_txn_begin(env, nullptr, 0, &txn);
        MDB_val key{sizeof path, &path}, value{sizeof(Via), const_cast<Via*>(&vias[path])};
        mdb_put(txn, fecs, &key, &value, 0);
        mdb_txn_commit(txn);
        fecChanged(path);
    }
    mdb_env_close(env);
    if (notified != U64(state.iterations())) state.SkipWithError("an event was not notified");
}
BENCHMARK(eventStack)->Name("event/Signals2, spdlog, LMDB");
#endif

void interfaceFails(benchmark::State& state) {
    FullRouter router;
    requireFull(router);
    for (auto _ : state) {
        timed(state, [&] { router.interfaceFails(1); });
        state.PauseTiming();
        router.interfaceReturns(1);
        state.ResumeTiming();
    }
    requireFull(router);
}

void switchOn(benchmark::State& state) {
    FullRouter router;
    for (auto _ : state) {
        router.configuredIs(false);
        timed(state, [&] { router.configuredIs(true); });
    }
    requireFull(router);
}

// The answer that a client of the show command receives over a socket.
struct Client {
    int ends[2];
    std::vector<char> buffer = std::vector<char>(1 << 18);
    Client() {
        ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends);
        const int room = 1 << 20;
        ::setsockopt(ends[0], SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof room);
    }
    ~Client() {
        ::close(ends[0]);
        ::close(ends[1]);
    }
    std::string read() {
        std::string text;
        for (ssize_t n; (n = ::recv(ends[1], buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0;)
            text.append(buffer.data(), size_t(n));
        return text;
    }
};

template <class Answer>
void show(benchmark::State& state, Answer&& answer) {
    const FullRouter router;
    Client client;
    const U32 fd = U32(client.ends[0]);
    router.root->showNavPaths(fd);
    const std::string expected = client.read();
    for (auto _ : state) {
        timed(state, [&] { answer(router, int(fd), expected); });
        if (client.read().size() != expected.size())
            return state.SkipWithError("the answer is not the same");
    }
}

void showOurs(benchmark::State& state) {
    show(state, [](const FullRouter& router, int fd, const std::string&) {
        router.root->showNavPaths(U32(fd));
    });
}
void showLimit(benchmark::State& state) {
    show(state, [](const FullRouter&, int fd, const std::string& text) {
        if (::write(fd, text.data(), text.size()) < 0) std::abort();
    });
}

// The text that both ways of printing print, with as much work done in advance as possible.
template <class Print>
void printAnswer(const FullRouter& router, Print&& print) {
    print("%s", "{'navPathSelPaths': [");
    for (const Nav::PathKeyInfo& path : router.root->navContainer()->navDb()->pathKeyInfo()) {
        print("{ 'pathGroup' : '%s", path.siteGroupKey().name.c_str());
        print("', 'source' : '%s", path.pathKey().srcAddr.stringValue().c_str());
        print("', 'destination' : '%s", path.pathKey().dstAddr.stringValue().c_str());
        print("', 'peer' : '%s", path.siteGroupKey().routerIp.stringValue().c_str());
        print("', 'state' : '%s", "Estab");
        print("',  'pathName': 'Path%s", std::to_string(path.pathIndex()).c_str());
        print("%s", "', }, ");
    }
    print("%s", "]}");
}
void showSnprintf(benchmark::State& state) {
    show(state, [](const FullRouter& router, int fd, const std::string& expected) {
        std::string text(expected.size() + 1, '\0');
        size_t at = 0;
        printAnswer(router, [&](const char* format, const char* field) {
            at += size_t(std::snprintf(&text[at], text.size() - at, format, field));
        });
        if (::write(fd, text.data(), at) < 0) std::abort();
    });
}
void showDprintf(benchmark::State& state) {
    show(state, [](const FullRouter& router, int fd, const std::string&) {
        printAnswer(router,
                    [&](const char* format, const char* field) { ::dprintf(fd, format, field); });
    });
}

BENCHMARK_CAPTURE(event, , 8)->Name("event/ours");
BENCHMARK_CAPTURE(event, , 5)->Name("event-untraced/ours");
BENCHMARK(eventLimit)->Name("event/limit");
BENCHMARK(interfaceFails)->UseManualTime()->Iterations(5)->Name("interface/ours");
BENCHMARK(switchOn)->UseManualTime()->Iterations(5)->Name("container/ours");
BENCHMARK(showOurs)->UseManualTime()->Name("show/ours");
BENCHMARK(showLimit)->UseManualTime()->Name("show/limit");
BENCHMARK(showSnprintf)->UseManualTime()->Name("show/snprintf");
BENCHMARK(showDprintf)->UseManualTime()->Iterations(5)->Name("show/dprintf by field");

}  // namespace
}  // namespace Bench

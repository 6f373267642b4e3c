// Runs operations so that callgrind counts their instructions, which unlike times are the same on
// every run. bench/instructions.py starts it, with collection off:
//
//     nav-instructions full       each operation once, on a router at full size
//     nav-instructions scaling    the operations that could grow, on routers of several sizes
//
// A figure is a dump of callgrind's whose label says what was counted: "operation|what varied|how
// many of it|how often the operation was run".
#include <fcntl.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/Bench.h"
#include "bench/FullSize.h"
#include "bench/RunDirectory.h"
#include "platform/shard/Map.h"
#include "platform/trace/Duolog.h"

namespace Bench {
namespace {

using Vel::Subscription;

class Meter {
  public:
    Meter(std::string varied, U32 number) : varied_(std::move(varied)), number_(number) {}

    // Counts run(i) for i below `times`, after one round that is not counted.
    template <class Run>
    void all(const char* operation, U32 times, Run&& run) const {
        for (U32 i = 0; i < times; ++i) run(i);
        CALLGRIND_ZERO_STATS;
        counted([&] {
            for (U32 i = 0; i < times; ++i) run(i);
        });
        dump(operation, times);
    }
    // The same for the part of run(i) that it passes to counted().
    template <class Run>
    void part(const char* operation, U32 times, Run&& run) const {
        for (U32 i = 0; i < times; ++i) run(i, [](auto&& f) { f(); });
        CALLGRIND_ZERO_STATS;
        for (U32 i = 0; i < times; ++i) run(i, [](auto&& f) { counted(f); });
        dump(operation, times);
    }

  private:
    template <class F>
    static void counted(F&& f) {
        CALLGRIND_TOGGLE_COLLECT;
        f();
        CALLGRIND_TOGGLE_COLLECT;
    }
    void dump(const char* operation, U32 times) const {
        char label[128];
        std::snprintf(label, sizeof label, "%s|%s|%u|%u", operation, varied_.c_str(), number_,
                      times);
        CALLGRIND_DUMP_STATS_AT(label);
    }

    const std::string varied_;
    const U32 number_;
};

constexpr U32 often = 1000;

struct Sink : Vel::Object {
    void handle() { ++calls; }
    U64 calls = 0;
};
using Probe = Routing::Hardware::VrfStatus;

void notify(const Meter& meter, const char* operation, U32 subscribers) {
    const auto probe = Vel::make<Probe>("probe");
    const auto sink = Vel::make<Sink>();
    std::vector<Subscription> subscriptions;
    for (U32 i = 0; i < subscribers; ++i)
        subscriptions.push_back(
            Subscription::to<&Sink::handle>(*probe, Probe::vrfIdAttr, sink.get()));
    U32 value = 0;
    meter.all(operation, often, [&](U32) { opaque(probe.get())->vrfIdIs(++value); });
    if (sink->calls != U64(2 * often) * subscribers)
        throw std::runtime_error("a subscriber was not called");
}

void entities(const Meter& meter) {
    const auto probe = Vel::make<Probe>("probe");
    const auto sink = Vel::make<Sink>();
    U32 value = 0;
    meter.all("set", often, [&](U32) { opaque(probe.get())->vrfIdIs(++value); });
    meter.all("set equal", often, [&](U32) { opaque(probe.get())->vrfIdIs(value); });
    notify(meter, "notify 1", 1);
    notify(meter, "notify 8", 8);
    meter.all("subscribe", often, [&](U32) {
        auto s =
            Subscription::to<&Sink::handle>(*opaque(probe.get()), Probe::vrfIdAttr, sink.get());
        opaque(&s);
    });
    meter.all("pointer copy", often, [&](U32) {
        Vel::Ptr<Probe> copy = *opaque(&probe);
        opaque(&copy);
    });
}

void traces(const Meter& meter) {
    static Duolog::Facility facility{"bench"};
    auto decide = [](U32 i) { DUOLOG(facility, 7, "Adding pathIndex: ", i, " to site"); };
    facility.levelIs(6);
    meter.all("trace off", often, [&](U32 i) { decide(*opaque(&i)); });
    facility.levelIs(8);
    const Vel::Hold event;
    meter.all("trace decision", often, [&](U32 i) { decide(*opaque(&i)); });
    meter.all("trace entry", often, [&](U32) { DUOLOG_ENTRY(facility); });
}

// Operations on one of `entries` elements, records of a shared table, or timers.
void tables(const Meter& meter, U32 entries) {
    std::vector<Nav::PathKey> keys;
    for (U32 i = 0; i < 2 * entries; ++i)
        keys.push_back({FullRouter::source(i % 4), Netz::IpGenAddr::fromV4(0xc6336401 + i / 4), 0});
    std::ranges::shuffle(keys, std::mt19937(1));
    const auto table = Vel::make<Nav::PathConfig>("default");
    for (U32 i = 0; i < entries; ++i) table->pathConfigEntryIs(keys[i]);
    meter.all("lookup", entries,
              [&](U32 i) { opaque(opaque(table.get())->pathConfigEntry(keys[i])); });
    U32 oldest = 0;
    meter.all("replace", entries, [&](U32) {
        table->pathConfigEntryDel(keys[oldest]);
        table->pathConfigEntryIs(keys[(oldest + entries) % keys.size()]);
        oldest = (oldest + 1) % keys.size();
    });
    meter.all("walk", 8, [&](U32) {
        for (const auto& element : table->pathConfigEntry()) opaque(&element);
    });

    using Value = std::array<std::byte, 104>;
    const RunDirectory directory;
    Shard::Map<U32, Value>::Writer writer(directory.space(), "bench", entries);
    Value value{};
    for (U32 key = 0; key < entries; ++key) writer.valueIs(key, value);
    (void)writer.commit();
    Shard::Map<U32, Value>::Reader reader(writer);
    reader.changes([](U32) {});
    meter.all("shared read", entries, [&](U32 key) { opaque(&reader)->find(key, value); });
    meter.all("shared write", entries, [&](U32 key) { opaque(&writer)->valueIs(key, value); });
    (void)writer.commit();
    reader.changes([](U32) {});
    meter.part("shared 16 changes", 16, [&](U32 i, auto&& counted) {
        for (U32 key = 0; key < 16; ++key) writer.valueIs((i + key * 61) % entries, value);
        (void)writer.commit();
        counted([&] { reader.changes([](U32 key) { opaque(&key); }); });
    });

    const Loom::ManualClock clock;
    Loom::TaskScheduler scheduler(clock);
    Sink sink;
    Loom::Task task(Loom::call<&Sink::handle>(sink));
    std::vector<std::unique_ptr<Loom::Timer>> timers;
    for (U32 i = 0; i < entries; ++i) {
        timers.push_back(std::make_unique<Loom::Timer>(scheduler, Loom::call<&Sink::handle>(sink)));
        timers.back()->armIn(std::chrono::seconds(i));
    }
    scheduler.runDue();
    meter.all("task", often, [&](U32) {
        opaque(&scheduler)->post(task);
        scheduler.runDue();
    });
    meter.all("timer", often, [&](U32 i) {
        timers[entries / 2]->armIn(std::chrono::seconds(entries) + std::chrono::milliseconds(i));
    });
}

// Changes from other services; each operation leaves the router as it was.
void services(const Meter& meter, FullRouter& router) {
    const Nav::NavInputs& in = router.in;
    const U32 paths = router.size.paths();
    auto pathOf = [paths](U32 i) { return i * 7 % paths; };

    U32 hop = 0;
    for (; hop < paths; ++hop) router.fecChanges(hop, 0);  // requests every address
    meter.all("fec", 128, [&](U32 i) { router.fecChanges(pathOf(i), hop++ / paths); });
    auto& results = *in.nexthopStatus->vrf("default");
    meter.all("next hop", 128, [&](U32 i) {
        const U32 path = pathOf(i);
        results.nexthopDel(router.destination(path));
        in.scheduler->runDue();
        results.nexthopIs({router.destination(path), path + 1});
        in.scheduler->runDue();
    });
    meter.all("hardware", 16, [&](U32 i) {
        auto& entry = *in.hwPathStatus->hwPathStatusList(router.hwPathKey(pathOf(i)));
        entry.hwArpIndexIs(0);
        entry.hwArpIndexIs(1);
    });
    meter.all("IPsec", 128, [&](U32 i) {
        const Nav::PathKey key = router.pathKey(pathOf(i));
        const Ipsec::ConnectionKey connection{key.srcAddr, key.dstAddr, "default"};
        auto& status = in.ipsecPathStatusDir->ipsecPathStatusIs(connection);
        status.encapIdIs(1);
        status.connectionStateIs(Ipsec::Path::established);
        in.ipsecPathStatusDir->ipsecPathStatusDel(connection);
    });
    meter.part("interface fails", 2, [&](U32 i, auto&& counted) {
        counted([&] { router.interfaceFails(i); });
        router.interfaceReturns(i);
    });
    meter.part("interface returns", 2, [&](U32 i, auto&& counted) {
        router.interfaceFails(i);
        in.hwPathStatus
            ->hwPathStatusListDelAll();  // otherwise paths with their old index would be up
        counted([&] {
            in.ipStatusDir->ipIntfStatus(router.intf(i))
                ->activeAddrWithMaskIs({router.source(i), 24});
        });
        router.programAnew();
    });
    const U32 lastVrf = router.size.vrfs - 1;
    const L3::VrfName vrf = "vrf" + std::to_string(lastVrf);
    meter.all("VRF id", 2, [&](U32) {
        in.routingHwRouteStatus->vrfStatusDel(vrf);
        in.routingHwRouteStatus->vrfStatusIs(vrf).vrfIdIs(lastVrf);
    });
    const int nowhere = ::open("/dev/null", O_WRONLY);
    meter.all("show", 4, [&](U32) { router.root->showNavPaths(U32(nowhere)); });
    ::close(nowhere);
}

// The same for changes of the configuration.
void configuration(const Meter& meter, FullRouter& router) {
    Nav::NavCliConfig& cli = *router.in.cliConfig;
    meter.part("destination", 8, [&](U32 i, auto&& counted) {
        const U32 path = i * 7 % router.size.paths();
        const Nav::HwPathKey old = router.hwPathKey(path);
        counted([&] { router.destinationIs(path, false); });
        router.in.hwPathStatus->hwPathStatusListDel(old);
        counted([&] { router.destinationIs(path, true); });
        router.program();
    });
    auto& policy = *cli.policyConfig("policy");
    meter.all("policy version", 4, [&](U32) { policy.configVersionInc(1); });
    meter.all("rule", 2, [&](U32) {
        policy.appProfilePolicyRuleListDel(1);
        policy.configVersionInc(1);
        auto& rule = policy.appProfilePolicyRuleListIs(1);
        rule.appProfileIdIs(1);
        rule.appProfileNameIs("app1");
        rule.lbGrpNameIs("gold");
        policy.configVersionInc(1);
    });
    const L3::VrfName vrf = "vrf" + std::to_string(router.size.vrfs - 1);
    meter.all("VRF binding", 2, [&](U32) {
        cli.vrfConfigDel(vrf);
        cli.vrfConfigIs(vrf).policyNameIs("policy");
    });
    auto& profile = *cli.loadBalanceProfile("gold");
    meter.all("profile", 2, [&](U32) {
        profile.pathGroupPriorityIs("group0", 9);
        profile.pathGroupPriorityIs("group0", 1);
    });
    meter.part("container", 1, [&](U32, auto&& counted) {
        router.configuredIs(false);
        counted([&] { router.configuredIs(true); });
        router.programAnew();
    });
}

void events(const Meter& meter, FullRouter& router) {
    requireFull(router);
    services(meter, router);
    configuration(meter, router);
    requireFull(router);
}

void full() {
    const Meter meter("full", 0);
    entities(meter);
    traces(meter);
    tables(meter, 1023);
    FullRouter router;
    events(meter, router);
    Duolog::levelIs("*", 8);
    U32 hop = 0;
    meter.all("fec traced", 16, [&](U32 path) { router.fecChanges(path, hop++ / 16); });
}

void scaling() {
    for (const U32 n : {128, 256, 512, 1024}) tables(Meter("entries", n), n);
    for (const U32 n : {2, 4, 8, 16}) notify(Meter("subscribers", n), "notify", n);
    auto vary = [](const char* what, std::initializer_list<U32> numbers, auto&& sizeFor) {
        for (const U32 n : numbers) {
            FullRouter router(sizeFor(n));
            events(Meter(what, n), router);
        }
    };
    vary("paths", {16, 32, 64, 128},
         [](U32 n) { return Size{.sites = 2, .apps = 4, .vrfs = 2, .spares = n / 4 - 2}; });
    vary("sites", {2, 4, 8, 16},
         [](U32 n) { return Size{.sites = n, .apps = 4, .vrfs = 2, .spares = 32 - n}; });
    vary("applications", {4, 8, 16, 32}, [](U32 n) {
        return Size{.sites = 8, .apps = n, .vrfs = 2, .spares = 0, .rulesPerApp = 32 / n};
    });
    vary("rules", {4, 8, 16, 32}, [](U32 n) {
        return Size{.sites = 8, .apps = 4, .vrfs = 2, .spares = 0, .rulesPerApp = n / 4};
    });
    vary("VRFs", {2, 4, 8, 16},
         [](U32 n) { return Size{.sites = 8, .apps = 4, .vrfs = n, .spares = 0}; });
}

}  // namespace
}  // namespace Bench

int main(int argc, char** argv) {
    const std::string what = argc == 2 ? argv[1] : "";
    if (what == "full")
        Bench::full();
    else if (what == "scaling")
        Bench::scaling();
    else
        return std::fputs("usage: nav-instructions full|scaling\n", stderr), 2;
}

// A start at full size: the configuration of a router is read, checked and applied, and everything
// that follows from it is published. The kernel and the forwarding side answer at once.
#include "agent/model/DatumJson.h"
#include "agent/model/Transaction.h"
#include "bench/Bench.h"
#include "bench/FullSize.h"

namespace Bench {
namespace {

void start(benchmark::State& state) {
    const FullRouter configured;
    const std::string text =
        Agent::toJson(Vel::toDatum(*configured.in.cliConfig), Agent::Secrets::shown).dump(2);
    for (auto _ : state) {
        FullRouter router(Size{}, false);
        const Agent::RunningConfig running{*router.in.cliConfig};
        Agent::Transaction(running, {Vel::make<Nav::NavCliConfig>(Agent::configName)}).apply();
        timed(state, [&] {
            Agent::Transaction change(running, {Agent::readConfigText(text)});
            change.check(nullptr);
            change.apply();
            router.in.scheduler->runDue();
            router.program();
        });
        requireFull(router);
    }
}
BENCHMARK(start)->UseManualTime()->Iterations(5)->Name("start/ours");

}  // namespace
}  // namespace Bench

// An agent in the process of its test, which turns its clock and asks it as the control socket
// does.
#pragma once

#include <string>

#include "agent/host/Host.h"
#include "agent/shell/Control.h"

struct InProcess : Agent::Session {
    using Json = Agent::Json;

    void sendEvent(const Line& line) override { events += *line + "\n"; }
    void startEvents() override {}

    void startAgent(std::unique_ptr<Agent::Platform> platform,
                    const Agent::ForwardingPtr& forwarding = nullptr) {
        control.reset();
        host.reset();
        host.emplace(*scheduler, std::move(platform), forwarding);
        control.emplace(host->controlled());
    }
    // Throws what refuses the request.
    Agent::Answer answer(const Json& request) {
        Agent::Answer answer = control->handle(request.at("op"), request, *this);
        if (answer.later) answer.value = answer.later();
        return answer;
    }
    Json ask(const Json& request) { return answer(request).value; }
    // Beside the checks of requests: "/place value" sets, "/place" deletes.
    void change(const std::string& request) {
        const size_t end = request.find(' ');
        const std::string path = request.substr(0, end);
        if (end == request.npos)
            host->tree().del(path);
        else
            host->tree().set(path, Agent::parseJson(request.substr(end)));
    }
    // Lets time pass, stopping wherever something is due.
    void pass(Loom::Duration time) {
        const Loom::Instant end = clock.now() + time;
        scheduler->runDue();
        while (const auto next = scheduler->nextDeadline()) {
            if (*next > end) break;
            clock.advance(*next - clock.now());
            scheduler->runDue();
        }
        clock.advance(end - clock.now());
    }

    Loom::ManualClock clock;
    const Vel::Ptr<Vel::Scheduler> scheduler = Vel::make<Vel::Scheduler>(clock);
    std::optional<Agent::Host> host;
    std::optional<Agent::Control> control;
    std::string events;  // that were sent to a watcher
};

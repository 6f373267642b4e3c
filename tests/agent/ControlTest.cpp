// The requests of the control socket on a host whose services a platform plays.
#include <gtest/gtest.h>

#include "agent/host/Host.h"
#include "agent/shell/Control.h"

namespace {

using Agent::Json;

TEST(ControlTest, OnlyAValidConfigurationIsWritten) {
    Loom::MonotonicClock clock;
    const auto scheduler = Vel::make<Vel::Scheduler>(clock);
    Agent::Host host(*scheduler, std::make_unique<Agent::Platform>("linux"));
    Agent::Control control(host.controlled());
    struct Session : Agent::Session {
        void sendEvent(const Line&) override {}
        void startEvents() override {}
    } session;
    // The value and the warnings of the answer, or the reason of the refusal.
    const auto ask = [&](const Json& request) {
        try {
            const Agent::Answer answer = control.handle(request.at("op"), request, session);
            std::string text = answer.value.dump();
            for (const std::string& warning : answer.warnings) text += " " + warning;
            return text;
        } catch (const std::exception& error) {
            return std::string(error.what());
        }
    };
    const std::string group = "/cliConfig/pathGroupConfig";
    const Json empty = host.tree().get("/cliConfig");
    for (
        const auto& [request, answer] : std::initializer_list<std::pair<const char*, std::string>>{
            {R"({"op":"set","path":"/ipStatusDir/ipIntfStatus[wan1]","value":{}})",
             "/ipStatusDir/ipIntfStatus[wan1]: this belongs to the interface service; on platform "
             "linux only /cliConfig is written from outside"},
            {R"({"op":"set","path":"/cliConfig/pathGroupConfig[a]/localIntf[wan1]","value":true})",
             "null"},
            {R"({"op":"set","path":"/cliConfig/pathGroupConfig[b]","value":{"localIntf":["wan1"]}})",
             group + "[b]/localIntf[wan1]: already in path group \"a\"; an interface belongs to "
                     "one path group"},
            {R"({"op":"del","path":"/cliConfig/pathGroupConfig[b]"})", group + "[b]: not found"},
            {R"({"op":"set","path":"/cliConfig/vrfConfig[v]/policyName","value":"p"})",
             R"(null VRF "v" names policy "p", which is not configured)"},
            {R"({"op":"check","value":{}})",
             "null this removes every path group (1), and with them every path"},
            {R"({"op":"load","value":{"udpPortConfig":1,"nothing":1}})",
             "/cliConfig/nothing: unknown attribute"},
            {R"({"op":"set","path":"/cliConfig/udpPortConfig"})", "value: required"},
            {R"({"op":"fly"})", "op: \"fly\" is unknown"}})
        EXPECT_EQ(ask(Agent::parseJson(request)), answer) << request;
    EXPECT_EQ(ask({{"op", "load"}, {"value", empty}}).substr(0, 4), "null");
    EXPECT_EQ(host.tree().get("/cliConfig"), empty);
}

}  // namespace

// The requests of the control socket on a host.
#include <gtest/gtest.h>

#include "agent/host/Host.h"
#include "agent/shell/Control.h"

namespace {

using Agent::Json;

Json get(const std::string& path) {
    return {{"op", "get"}, {"path", path}};
}
Json set(const std::string& path, const Json& value) {
    return {{"op", "set"}, {"path", path}, {"value", value}};
}
Json del(const std::string& path) {
    return {{"op", "del"}, {"path", path}};
}

class ControlTest : public testing::Test {
  protected:
    struct Session : Agent::Session {
        void sendEvent(const Line&) override {}
        void startEvents() override {}
    };

    // The value of the answer, or the reason of the refusal.
    Json ask(const Json& request) {
        try {
            Agent::Answer answer = control.handle(request.at("op"), request, session);
            warnings = answer.warnings.size();
            return answer.value;
        } catch (const std::exception& error) {
            return error.what();
        }
    }

    Loom::MonotonicClock clock;
    Vel::Ptr<Vel::Scheduler> scheduler = Vel::make<Vel::Scheduler>(clock);
    Agent::Host host{*scheduler, std::make_unique<Agent::Platform>("linux")};
    Agent::Control control{host.controlled()};
    Session session;
    size_t warnings = 0;
};

TEST_F(ControlTest, OnlyTheConfigurationIsWrittenWhereAPlatformPlaysTheServices) {
    EXPECT_EQ(ask(set("/ipStatusDir/ipIntfStatus[wan1]", Json::object())),
              "/ipStatusDir/ipIntfStatus[wan1]: this belongs to the interface service; on platform "
              "linux only /cliConfig is written from outside");
    EXPECT_NE(ask(del("/navStatusDir/navRuleStatus[x]")).get<std::string>().find("path selection"),
              std::string::npos);
    EXPECT_EQ(host.inputs().ipStatusDir->ipIntfStatus().size(), 0u);
}

TEST_F(ControlTest, AChangeIsHeldAgainstTheConfigurationAsItWouldBeAfterwards) {
    const Json empty = ask(get("/cliConfig"));
    const std::string group = "/cliConfig/pathGroupConfig",
                      site = group + "[a]/remoteViaConfig[192.0.2.1]/remoteVia";
    EXPECT_EQ(ask(set(group + "[a]/localIntf[wan1]", true)), nullptr);
    EXPECT_EQ(ask(set(group + "[b]/localIntf", {"wan2", "wan1"})),
              "/cliConfig/pathGroupConfig/b/localIntf/1: wan1 is in path group \"a\" already");
    Json vias = Json::array();
    for (int i = 1; i <= 128; ++i) vias.push_back("10.0.0." + std::to_string(i));
    EXPECT_EQ(ask(set(site, vias)), nullptr);
    const Json full = ask(get("/cliConfig"));
    EXPECT_EQ(ask(set(site + "[10.0.1.1]", true)),
              "/cliConfig/pathGroupConfig: this needs 129 paths, there are at most 128");
    EXPECT_EQ(ask(get("/cliConfig")), full);
    EXPECT_EQ(ask(del(site + "[10.0.0.128]")), nullptr);
    EXPECT_EQ(ask(set(site + "[10.0.1.1]", true)), nullptr);
    EXPECT_EQ(ask(del(group + "[b]")), "/cliConfig/pathGroupConfig[b]: there is none");
    EXPECT_EQ(ask(set("/cliConfig/vrfConfig[v]/policyName", "p")), nullptr);
    EXPECT_EQ(warnings, 1u);

    EXPECT_EQ(ask({{"op", "check"}, {"value", empty}}), nullptr);
    EXPECT_EQ(ask({{"op", "load"}, {"value", empty}}), nullptr);
    for (const Json& bad : std::initializer_list<Json>{
             {{"op", "get"}},
             {{"op", "set"}, {"path", "/cliConfig/udpPortConfig"}},
             get("/x"),
             {{"op", "watch"}, {"path", 1}},
             {{"op", "trace"}, {"last", -1}},
             {{"op", "show"}},
             {{"op", "load"}, {"value", {{"udpPortConfig", 1}, {"nothing", 1}}}},
             {{"op", "fly"}},
             {{"op", "check"}, {"value", nullptr}}})
        EXPECT_TRUE(ask(bad).is_string()) << bad;
    EXPECT_EQ(ask(get("/cliConfig")), empty);
}

}  // namespace

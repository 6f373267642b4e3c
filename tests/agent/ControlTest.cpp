// The requests of the control socket on a host whose services a platform plays.
#include <gtest/gtest.h>

#include "tests/InProcess.h"

namespace {

using Agent::Json;

struct ControlTest : testing::Test, InProcess {
    explicit ControlTest(const Agent::ForwardingPtr& given = nullptr) : forwarding(given) {
        startAgent(std::make_unique<Agent::Platform>("linux"), forwarding);
    }
    // The value and the warnings of the answer, or the reason of the refusal.
    std::string ask(const Json& request) {
        try {
            const Agent::Answer given = answer(request);
            std::string text = given.value.dump();
            for (const std::string& warning : given.warnings) text += " " + warning;
            return text;
        } catch (const std::exception& error) {
            return error.what();
        }
    }
    std::string ask(const char* request) { return ask(Agent::parseJson(request)); }

    const Agent::ForwardingPtr forwarding;
};

TEST_F(ControlTest, OnlyAValidConfigurationIsWritten) {
    const std::string group = "/cliConfig/pathGroupConfig";
    const Json empty = host->tree().get("/cliConfig");
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
            {R"({"op":"set","path":"/cliConfig/vrfConfig[v]/policyName","value":"p"})",
             R"(null VRF "v" names policy "p", which is not configured)"},
            {R"({"op":"check","value":{}})",
             "null this removes every path group (1), and with them every path"},
            {R"({"op":"get","path":"/forwardingConfig"})", "null"},
            {R"({"op":"set","path":"/forwardingConfig/vrf[v]","value":{}})",
             std::string("/forwardingConfig/vrf[v]: ") + Agent::notForwarding},
            {R"({"op":"load","forwarding":{}})",
             std::string("/forwardingConfig: ") + Agent::notForwarding},
            {R"({"op":"load","value":{"udpPortConfig":1,"nothing":1}})",
             "/cliConfig/nothing: unknown attribute"},
            {R"({"op":"fly"})", "op: \"fly\" not found"}})
        EXPECT_EQ(ask(request), answer) << request;
    EXPECT_EQ(ask({{"op", "load"}, {"value", empty}}).substr(0, 4), "null");
    EXPECT_EQ(host->tree().get("/cliConfig"), empty);
    EXPECT_EQ(ask({{"op", "show"}, {"command", "NAVPEERS"}}), R"("{ }")");
    EXPECT_TRUE(host->inputs().navCliRequestDir->request().empty()) << "a request is left behind";
}

TEST(OwnershipTest, WhatTheServicesPublishBelongsToThem) {
    for (const char* platform : {"sim", "linux"}) {
        InProcess agent;
        agent.startAgent(std::make_unique<Agent::Platform>(platform));
        Agent::Host& host = *agent.host;
        for (const Json& root : host.tree().rootNames()) {
            const std::string path = "/" + root.get<std::string>();
            if (path == "/cliConfig") continue;
            EXPECT_THROW(host.tree().set(path, Json::object()), Agent::TreeError) << path;
        }
    }
}

struct ForwardingControlTest : ControlTest {
    ForwardingControlTest() : ControlTest(Agent::makeForwarding()) {}
};

TEST_F(ForwardingControlTest, AKeyIsShownToTheFileOfItsOwnerOnly) {
    std::string shown = ask(R"({"op":"watch","path":"/forwardingConfig"})") +
                        ask(R"({"op":"watch","path":"/forwardingConfig/probe"})");
    shown += ask(R"({"op":"load","forwarding":{"probe":{"key":"s3cret","group":{"g":{}}}}})");
    const std::string key = "/forwardingConfig/probe/group[g]/key";
    EXPECT_EQ(ask({{"op", "get"}, {"path", key}}), "null");
    shown += ask({{"op", "set"}, {"path", key}, {"value", "oth3r"}});
    const Agent::ProbeConfig& probe = *forwarding->probe();
    EXPECT_EQ(probeValues(probe, "none").key.text, "s3cret");
    EXPECT_EQ(probeValues(probe, "g").key.text, "oth3r");
    EXPECT_EQ(probeValues(probe, "g").window, 10000u);

    const std::string whole = ask(R"({"op":"get","path":"/forwardingConfig"})");
    shown +=
        whole + ask({{"op", "get"}, {"path", key}}) + ask(R"({"op":"trace","last":1000})") + events;
    EXPECT_EQ(shown.find("s3cret"), shown.npos);
    EXPECT_EQ(shown.find("oth3r"), shown.npos);
    EXPECT_NE(events.find(R"-(group[g]/key","value":"(hidden)")-"), events.npos) << events;
    std::istringstream lines(events);
    for (std::string line, last; std::getline(lines, line); last = line)
        EXPECT_NE(line, last) << "sent for both watches";
    EXPECT_NE(ask({{"op", "load"}, {"forwarding", Agent::parseJson(whole)}}), "null");
    const Json saved = Agent::parseJson(ask(R"({"op":"save"})")).at("forwarding");
    ask(R"({"op":"load","forwarding":{}})"), ask({{"op", "load"}, {"forwarding", saved}});
    EXPECT_EQ(Agent::parseJson(ask(R"({"op":"save"})")).at("forwarding"), saved);
    EXPECT_NE(ask(R"({"op":"set","path":"/forwardingConfig/probe/window","value":5})"), "null");
    EXPECT_EQ(probe.window(), 10000u);
}

}  // namespace

// The simulated router under an agent, by a clock that the test turns: what becomes of two paths,
// of what is programmed for them and of their traffic, and the reasons that only the router knows.
//
// Two VRFs use the same remote address: wan1 is in "default", wan2 in "blue". The path of group
// "internet" over wan1 is secured and preferred, that of "mpls" over wan2 is not.
#include <gtest/gtest.h>

#include <regex>

#include "agent/sim/SimPlatform.h"
#include "platform/trace/Duolog.h"
#include "tests/InProcess.h"

namespace Agent::Sim {
namespace {

using namespace std::chrono_literals;
using Loom::Duration;
using Vel::U32;

constexpr const char* network = R"({
    "programmingDelay": 10,
    "interfaces": {
        "wan1": {"v4": "203.0.113.1/24", "neighbours": {"203.0.113.254": 20}},
        "wan2": {"vrf": "blue", "v4": "192.0.2.1/24", "v6": "2001:db8::1/64",
                 "neighbours": {"192.0.2.254": 40}}},
    "vrfs": {
        "default": {
            "routes": {"198.51.100.0/24": [{"gateway": "203.0.113.254", "interface": "wan1"}]},
            "peers": {"198.51.100.2": {"handshake": 100, "retry": 500}}},
        "blue": {"id": 7,
            "routes": {"0.0.0.0/0": [{"gateway": "192.0.2.254", "interface": "wan2"}]}}}})";
constexpr const char* configuration = R"({
    "pathGroupConfig": {
        "internet": {"ipsecProfile": "strong", "localIntf": ["wan1"],
                     "remoteViaConfig": {"10.255.0.2": {"remoteVia": ["198.51.100.2"]}}},
        "mpls": {"localIntf": ["wan2"],
                 "remoteViaConfig": {"10.255.0.2": {"remoteVia": ["198.51.100.2"]}}}},
    "loadBalanceProfile": {"quick": {"lossRate": 1,
                                     "pathGroupPriority": {"internet": 1, "mpls": 2}}},
    "policyConfig": {"branch": {"configVersion": 1, "appProfilePolicyRuleList": {"10": {
        "appProfileId": 4, "appProfileName": "voice", "lbGrpName": "quick"}}}},
    "vrfConfig": {"blue": {"policyName": "branch"}},
    "navConfigured": true})";

class RouterTest : public testing::Test, public InProcess {
  protected:
    RouterTest() {
        Duolog::captureIs(&lines);
        Duolog::levelIs("router", 5);
        Duolog::levelIs("sim", 5);
        Duolog::levelIs("agent", 4);
    }
    ~RouterTest() override { Duolog::captureIs(nullptr); }

    // The network, changed by a merge patch.
    static World world(const std::string& patch = "{}") {
        Json json = parseJson(network);
        json.merge_patch(parseJson(patch));
        return readHistory(json).first;
    }
    void start(const History& history = {world(), {}}) {
        auto owned = std::make_unique<SimPlatform>(history);
        platform = owned.get();
        startAgent(std::move(owned));
        host->tree().set("/cliConfig", parseJson(configuration));
    }
    void become(const std::string& patch) { platform->router().worldIs(world(patch)); }
    void peer(const std::string& members) {
        become(R"({"vrfs": {"default": {"peers": {"198.51.100.2": {)" + members + "}}}}}");
    }
    // The states of the paths over wan1 and wan2 once time has passed, stopping wherever something
    // is due.
    std::string after(Duration time) {
        pass(time);
        static const std::regex entry("'state' : '([^']*)'");
        const std::string text = host->show("NAVPATHS");
        std::string states;
        for (std::sregex_iterator at(text.begin(), text.end(), entry), none; at != none; ++at)
            states += (states.empty() ? "" : ", ") + (*at)[1].str();
        return states;
    }
    U32 encapId() {
        const auto& all = host->inputs().ipsecPathStatusDir->ipsecPathStatus();
        return all.empty() ? 0 : (*all.begin()).encapId();
    }
    // Indices of the paths in hardware, and of their neighbours.
    std::map<U32, U32> hardware() {
        std::map<U32, U32> found;
        for (const auto& entry : host->inputs().hwPathStatus->hwPathStatusList())
            found[entry.key().pathIndex] = entry.hwArpIndex();
        return found;
    }

    SimPlatform* platform = nullptr;
    std::vector<std::string> lines;
};

TEST_F(RouterTest, PathsComeUpAndFollowTheirLink) {
    start({world(),
           {{1000ms, world(R"({"interfaces": {"wan1": {"up": false}}})")}, {1500ms, world()}}});
    EXPECT_EQ(after(49ms), "Ipsec Pending, Arp Pending") << "neighbour and hardware take 50 ms";
    EXPECT_EQ(after(1ms), "Ipsec Pending, Estab");
    EXPECT_EQ(after(50ms), "Arp Pending, Estab") << "the handshake takes 100 ms";
    EXPECT_EQ(after(30ms), "Ipsec Estab, Estab");
    const U32 before = encapId();
    EXPECT_EQ(after(870ms), "Route Pending, Estab") << "the link went down at 1 s";
    EXPECT_EQ(hardware().size(), 1u);
    EXPECT_EQ(after(500ms), "Arp Pending, Estab") << "the IPsec connection outlives the failure";
    EXPECT_EQ(after(30ms), "Ipsec Estab, Estab");
    EXPECT_EQ(encapId(), before);
    const std::string voice = "voice to 10.255.0.2 in VRF blue now over ";
    const std::string internet = voice + "Path1 (internet, priority 1)",
                      mpls = voice + "Path2 (mpls, priority 2)";
    EXPECT_EQ(lines, (std::vector<std::string>{mpls, internet, "link wan1 is down", mpls,
                                               "link wan1 is up", internet}));

    // Gone and back with another index before a task has run.
    const std::string remote =
        "/cliConfig/pathGroupConfig[mpls]/remoteViaConfig[10.255.0.2]"
        "/remoteVia[198.51.100.";
    host->tree().del(remote + "2]"), host->tree().set(remote + "3]", true);
    host->tree().set(remote + "2]", true);
    EXPECT_EQ(after(200ms), "Ipsec Estab, Estab, Estab");
    const auto then = hardware();
    EXPECT_TRUE(then.size() == 3 && !then.contains(2));
    // Another gateway: the path stays in hardware until the new one has answered.
    become(R"({"interfaces": {"wan2": {"neighbours": {"192.0.2.253": 5}}}, "vrfs": {"blue": {
        "routes": {"0.0.0.0/0": [{"gateway": "192.0.2.253", "interface": "wan2"}]}}}})");
    EXPECT_EQ(after(0ms), "Ipsec Estab, Estab, Estab");
    EXPECT_EQ(hardware(), then);
    after(15ms);
    EXPECT_NE(hardware(), then);
    host->tree().set("/cliConfig/navConfigured", false);
    EXPECT_EQ(after(0ms), "");
    EXPECT_TRUE(hardware().empty() && encapId() == 0 &&
                host->inputs().forwardingStatus->fec().empty())
        << "left behind by the paths that are gone";
}

TEST_F(RouterTest, PeersFailAndRekey) {
    start();
    after(200ms);
    const U32 first = encapId();
    peer(R"("fault": "refuses")");
    EXPECT_EQ(after(0ms), "Ipsec Pending, Estab");
    EXPECT_EQ(encapId(), Nav::noEncapId);
    after(2s), peer("");
    EXPECT_EQ(after(640ms), "Ipsec Estab, Estab") << "tried again after 500 ms";
    const U32 second = encapId();
    EXPECT_NE(second, first);
    // A silent peer is believed until the keys are too old; rekeying makes them new.
    peer(R"("lifetime": 300, "rekeyInterval": 200)"), after(10s);
    EXPECT_EQ(encapId(), second);
    peer(R"("lifetime": 300, "rekeyInterval": 200, "fault": "silent")");
    EXPECT_EQ(after(300ms), "Ipsec Pending, Estab");
    peer(R"("rekeyInterval": 1000, "rekeyGap": 50, "rekeyChangesEncapId": true)");
    EXPECT_EQ(after(900ms), "Ipsec Estab, Estab");
    const U32 third = encapId();
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) seen.insert(after(10ms));
    EXPECT_TRUE(seen.contains("Ipsec Pending, Estab")) << "the gap of the rekeying";
    EXPECT_NE(encapId(), third);
    after(100ms);
    const U32 fourth = encapId();
    host->tree().set("/cliConfig/pathGroupConfig[internet]/ipsecProfile", "stronger");
    EXPECT_EQ(after(0ms), "Ipsec Pending, Estab") << "a new profile is a new connection";
    EXPECT_EQ(after(200ms), "Ipsec Estab, Estab");
    EXPECT_NE(encapId(), fourth);
}

TEST_F(RouterTest, ReasonsThatOnlyTheRouterKnows) {
    start();
    const std::string notEstablished = "the IPsec connection is not established: ";
    const auto reason = [&] { return ask({{"op", "explain"}}).at("paths").at(0).at("reason"); };
    after(0ms);
    EXPECT_EQ(reason(), notEstablished + "connecting");
    for (
        const auto& [patch, expected] : std::vector<std::pair<std::string, std::string>>{
            {"{}", "nothing checks beyond next hop 203.0.113.254"},
            {R"({"interfaces": {"wan1": {"neighbours": null}}})",
             "next hop 203.0.113.254 does not answer"},
            {R"({"interfaces": {"wan1": {"up": false}}})", "interface wan1 is down"},
            {R"({"vrfs": {"default": {"peers": {"198.51.100.2": {"fault": "refuses"}}}}})",
             notEstablished + "the peer refused it"},
            {R"({"vrfs": {"default": {"peers": {"198.51.100.2": {"fault": "silent", "retry": 900}}}}})",
             notEstablished + "the peer does not answer"},
            {R"({"vrfs": {"default": {"peers": null}}})",
             notEstablished + "no peer is known at 198.51.100.2"}}) {
        become(patch), scheduler->runDue();
        for (int i = 0; i < 70; ++i, after(10ms))
            EXPECT_EQ(ask({{"op", "validate"}}), Json::array()) << i << " ms";
        EXPECT_EQ(reason(), expected) << patch;
    }
}

}  // namespace
}  // namespace Agent::Sim

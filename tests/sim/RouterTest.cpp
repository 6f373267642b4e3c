#include "tests/sim/SimFixture.h"

namespace Agent::Sim::Test {
namespace {

using Texts = std::vector<std::string>;

class RouterTest : public SimFixture {};

TEST_F(RouterTest, PathsComeUpAndFollowTheirLink) {
    History history{world(), {}};
    history.steps.push_back({1000ms, world(R"({"interfaces": {"wan1": {"up": false}}})")});
    history.steps.push_back({1500ms, world()});
    start();
    configure();
    EXPECT_EQ(internet() + mpls(), "") << "there is neither address nor VRF";
    const auto& traces = capture("sim");
    Duolog::levelIs("sim", 5);
    startRouter(history);

    run(49ms);
    EXPECT_EQ(mpls(), "Arp Pending") << "neighbour and hardware take 50 ms";
    run(1ms);
    EXPECT_EQ(internet() + ", " + mpls(), "Ipsec Pending, Estab");
    EXPECT_EQ(usable(), std::set{indexOf(mplsKey)});
    run(50ms);
    EXPECT_EQ(internet(), "Arp Pending") << "the handshake takes 100 ms";
    run(30ms);
    EXPECT_EQ(internet(), "Ipsec Estab");
    EXPECT_EQ(usable(), (std::set{indexOf(internetKey), indexOf(mplsKey)}));
    const auto* hardware = in.hwPathStatus->hwPathStatusList(
        {ip("203.0.113.1"), ip("198.51.100.2"), 0, indexOf(internetKey)});
    ASSERT_NE(hardware, nullptr);
    EXPECT_EQ(hardware->ipsecEncapId(), encapId());
    const U32 encapIdBefore = encapId();

    run(870ms);
    EXPECT_EQ(internet() + ", " + mpls(), "Route Pending, Estab") << "the link went down at 1 s";
    EXPECT_EQ(usable(), std::set{indexOf(mplsKey)});
    EXPECT_EQ(inHardware().size(), 1u);
    run(500ms);
    EXPECT_EQ(internet(), "Arp Pending") << "the IPsec connection outlives the failure";
    run(30ms);
    EXPECT_EQ(internet(), "Ipsec Estab");
    EXPECT_EQ(encapId(), encapIdBefore);

    const std::string traffic = "voice to 10.255.0.2 in VRF blue now over ";
    const std::string overInternet =
        traffic + "Path" + std::to_string(indexOf(internetKey)) + " (internet, priority 1)";
    const std::string overMpls =
        traffic + "Path" + std::to_string(indexOf(mplsKey)) + " (mpls, priority 2)";
    EXPECT_EQ(traces, (Texts{overMpls, overInternet, "link wan1 is down", overMpls,
                             "link wan1 is up", overInternet}));
    root = nullptr;
    run(0ms);
    EXPECT_TRUE(inHardware().empty() && in.ipsecPathStatusDir->ipsecPathStatus().empty() &&
                in.forwardingStatus->fec().empty())
        << "left behind by the paths that are gone";
}

TEST_F(RouterTest, HardwareFollowsIndexNeighbourAndEncapsulation) {
    start();
    configure();
    startRouter();
    run(200ms);
    const U32 index = indexOf(mplsKey);
    const auto hardware = [&](U32 pathIndex) {
        return in.hwPathStatus->hwPathStatusList(
            {mplsKey.srcAddr, mplsKey.dstAddr, mplsKey.vrfId, pathIndex});
    };
    // Gone and back with another index before a task has run.
    noVia("mpls", "10.255.0.2", "198.51.100.2");
    via("mpls", "10.255.0.3", "198.51.100.3");
    via("mpls", "10.255.0.2", "198.51.100.2");
    ASSERT_NE(indexOf(mplsKey), index);
    run(200ms);
    EXPECT_EQ(hardware(index), nullptr);
    EXPECT_EQ(inHardware().size(), 3u);

    // Another gateway: the path stays in hardware until the new one has answered.
    const U32 arpIndex = hardware(indexOf(mplsKey))->hwArpIndex();
    const char* moved = R"({"interfaces": {"wan2": {"neighbours": {"192.0.2.253": 5}}},
        "vrfs": {"blue": {"routes": {"0.0.0.0/0": [{"gateway": "192.0.2.253",
                                                    "interface": "wan2"}]}}}})";
    change(moved);
    EXPECT_EQ(mpls(), "Estab");
    EXPECT_EQ(hardware(indexOf(mplsKey))->hwArpIndex(), arpIndex);
    run(15ms);
    EXPECT_NE(hardware(indexOf(mplsKey))->hwArpIndex(), arpIndex);
    change(R"({"interfaces": {"wan2": {"neighbours": null}}})");
    EXPECT_EQ(mpls(), "Arp Pending");
}

TEST_F(RouterTest, PeersFailAndRekey) {
    start();
    configure();
    startRouter();
    run(200ms);
    const auto peer = [&](const std::string& members) {
        change(
            (R"({"vrfs": {"default": {"peers": {"198.51.100.2": {)" + members + "}}}}}").c_str());
    };
    const U32 first = encapId();
    peer(R"("fault": "refuses")");
    EXPECT_EQ(internet(), "Ipsec Pending");
    EXPECT_EQ(usable(), std::set{indexOf(mplsKey)});
    EXPECT_EQ(encapId(), Nav::noEncapId);
    run(2s);
    peer("");
    run(640ms);
    EXPECT_EQ(internet(), "Ipsec Estab") << "500 ms until it is tried again, 100 ms handshake";
    const U32 second = encapId();
    EXPECT_NE(second, first);

    // A silent peer is believed until the keys are too old; rekeying makes them new.
    peer(R"("lifetime": 300, "rekeyInterval": 200)");
    run(10s);
    EXPECT_EQ(encapId(), second);
    peer(R"("lifetime": 300, "rekeyInterval": 200, "fault": "silent")");
    run(300ms);
    EXPECT_EQ(internet(), "Ipsec Pending");
    peer(R"("rekeyInterval": 1000, "rekeyGap": 50, "rekeyChangesEncapId": true)");
    run(900ms);
    EXPECT_EQ(internet(), "Ipsec Estab");
    const U32 third = encapId();
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i, run(10ms)) seen.insert(internet());
    EXPECT_TRUE(seen.contains("Ipsec Pending")) << "the gap of the rekeying";
    EXPECT_NE(encapId(), third);
    run(100ms);

    // A new profile is a new connection.
    const U32 fourth = encapId();
    group("internet").ipsecProfileIs("stronger");
    run(0ms);
    EXPECT_EQ(internet(), "Ipsec Pending");
    run(200ms);
    EXPECT_EQ(internet(), "Ipsec Estab");
    EXPECT_NE(encapId(), fourth);
}

TEST_F(RouterTest, VoiceLeavesALossyPathAndTrafficADeadOne) {
    start();
    configure();
    cli.loadBalanceProfile("quick")->lossRateIs(1);
    const auto& traces = capture("router");
    Duolog::levelIs("sim", 4);
    const auto loss = [&](int percent) {
        change((R"({"probe": {"interval": 10, "window": 1000, "upDelay": 100, "downDelay": 20},
                    "interfaces": {"wan1": {"quality": {"0.0.0.0/0":
                        {"delay": 20, "jitter": 2, "lossBackward": )" +
                std::to_string(percent) + "}}}}}")
                   .c_str());
    };
    const auto lineAfter = [&](Duration time) {
        const size_t before = traces.size();
        Duolog::levelIs("router", 5);
        run(time);
        return traces.size() == before ? "" : traces.back();
    };
    startRouter();
    loss(0);
    EXPECT_EQ(lineAfter(2s), "");
    const std::string path =
        "Path" + std::to_string(indexOf(internetKey)) + " 203.0.113.1 -> 198.51.100.2: ";
    loss(4);
    EXPECT_EQ(lineAfter(510ms), "") << "the second loss is above 1 %, for less than 20 ms";
    const PathQuality& figures = *router->quality().pathQuality(indexOf(internetKey));
    EXPECT_EQ(figures.samples, 100u);
    EXPECT_EQ(figures.lossForward, 0);
    EXPECT_EQ(figures.lossBackward, 2);
    EXPECT_EQ(figures.rttMin, 19);
    EXPECT_EQ(figures.rttP95, 21);
    EXPECT_NEAR(figures.jitter, 2, 1e-3);
    EXPECT_EQ(lineAfter(10ms),
              "voice to 10.255.0.2 in VRF blue leaves " + path + "loss 2.0 % > 1 %");
    EXPECT_EQ(usable(), (std::set{indexOf(internetKey), indexOf(mplsKey)}));
    loss(0);
    EXPECT_EQ(lineAfter(820ms), "") << "one loss left in the window, for less than 100 ms";
    EXPECT_EQ(lineAfter(20ms),
              "voice to 10.255.0.2 in VRF blue returns to " + path + "loss 1.0 % <= 1 %");
    loss(100);
    run(30ms);
    EXPECT_EQ(internet(), "Arp Pending") << "three probes lost";
    EXPECT_EQ(usable(), std::set{indexOf(mplsKey)});
    loss(0);
    run(90ms);
    EXPECT_EQ(internet(), "Arp Pending") << "not good for 100 ms";
    run(60ms);
    EXPECT_EQ(internet(), "Ipsec Estab");
}

}  // namespace
}  // namespace Agent::Sim::Test

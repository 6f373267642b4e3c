#include "tests/nav/NavFixture.h"

namespace Nav::Test {
namespace {

class RootTest : public NavFixture {
  protected:
    void onePath() {
        address("wan1", "203.0.113.1/24");
        listIntf("internet", "wan1");
        via("internet", "10.255.0.2", "198.51.100.2");
    }
};

TEST_F(RootTest, ContainerFollowsTheFlag) {
    start(false);
    EXPECT_EQ(root->navContainer(), nullptr);
    ASSERT_TRUE(in.navStatusDir->navPathStatusDir() && in.navStatusDir->navLbProfileStatus());
    EXPECT_EQ(in.navStatusDir->navPathStatusDir()->name(), "navPathStatusDir");
    EXPECT_EQ(in.navStatusDir->navLbProfileStatus()->name(), "navLbProfileDir");

    cli.navConfiguredIs(true);
    ASSERT_NE(root->navContainer(), nullptr);
    EXPECT_EQ(root->navContainer()->navPathGroupDirSm()->inputs().maxPathIndex, 128u);
    EXPECT_EQ(root->navContainer()->navLbProfileSm()->inputs().maxLbIndex, 1023u);
    const Vel::Ptr<NavContainer> first(*root->navContainer());
    capture("root");
    root->handleInitialized();
    first->handleInitialized();
    EXPECT_TRUE(traced("handleInitialized:already initialized"));
    root->handleNavConfigured();
    EXPECT_EQ(root->navContainer(), first.get()) << "a container that is there is kept";
    cli.navConfiguredIs(false);
    EXPECT_EQ(first->navDb(), nullptr);
    cli.navConfiguredIs(true);
    EXPECT_NE(root->navContainer(), first.get());
}

TEST_F(RootTest, SwitchedOffPathsGoOneByOneAndTheirRequestsWithThem) {
    onePath();
    via("internet", "10.255.0.3", "198.51.100.3");
    group("internet").ipsecProfileIs("gold");
    in.nexthopStatus->vrfIs("default");
    start();
    std::string left;
    On requests(*in.ipsecPathConfigDir, Ipsec::Path::PathConfigDir::ipsecPathConfigAttr,
                [&] { left += std::to_string(configuredPaths().size()); });
    cli.navConfiguredIs(false);
    EXPECT_EQ(left, "10");
}

TEST_F(RootTest, AReplacedInputMakesANewContainer) {
    onePath();
    start();
    const Vel::Ptr<NavContainer> first(*root->navContainer());
    root->inputIs(&NavInputs::cliConfig, in.cliConfig.ptr());
    EXPECT_EQ(root->navContainer(), first.get());

    const auto other = Vel::make<NavCliConfig>("cliConfig");
    root->inputIs(&NavInputs::cliConfig, other);
    EXPECT_TRUE(configuredPaths().empty());
    cli.navConfiguredIs(false);
    cli.navConfiguredIs(true);
    EXPECT_EQ(root->navContainer(), nullptr) << "the old one is watched no more";
    other->navConfiguredIs(true);
    EXPECT_NE(root->navContainer(), nullptr);
    root->inputIs(&NavInputs::cliConfig, in.cliConfig.ptr());

    const auto interfaces = Vel::make<Ip::Status>("ipStatusDir");
    interfaces->ipIntfStatusIs(Netz::IntfId("wan1")).activeAddrWithMaskIs(ipMask("203.0.113.9/24"));
    root->inputIs(&NavInputs::ipStatusDir, interfaces);
    EXPECT_EQ(configuredPaths(), std::set{key("203.0.113.9", "198.51.100.2")});

    const auto statusDir = Vel::make<NavStatusDir>("navStatusDir");
    root->inputIs(&NavInputs::navStatusDir, statusDir);
    EXPECT_TRUE(!in.navStatusDir->navPathStatusDir() && in.navStatusDir->navRemoteIpList().empty());
    EXPECT_EQ(statusDir->navPathStatusDir()->pathStatus("default")->pathStatusEntry().size(), 1u);
    EXPECT_TRUE(statusDir->navRemoteIpListHas(ip("10.255.0.2")));
}

TEST_F(RootTest, NullInputsAreRefusedByName) {
    auto refusal = [](auto&& attempt) -> std::string {
        try {
            attempt();
        } catch (const Vel::Error& e) {
            return e.what();
        }
        return "accepted";
    };
    start();
    EXPECT_EQ(refusal([&] { root->inputIs(&NavInputs::ip6StatusDir, Vel::Ptr<Ip6::Status>()); }),
              "null value for mutator parameter of Nav::NavRootSm::ip6StatusDir not allowed");
    EXPECT_NE(root->navContainer(), nullptr);
    EXPECT_EQ(refusal([] { NavRootSmIs({}); }),
              "null value for mutator parameter of Nav::NavRootSm::cliConfig not allowed");
}

}  // namespace
}  // namespace Nav::Test

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
    capture("root");
    start();
    EXPECT_TRUE(traced("Creating Nav container"));
    const Vel::Ptr<NavContainer> first(*root->navContainer());
    root->inputIs(&NavInputs::cliConfig, in.cliConfig.ptr());
    EXPECT_EQ(root->navContainer(), first.get());

    root->inputIs(&NavInputs::cliConfig, Vel::make<NavCliConfig>("cliConfig"));
    EXPECT_TRUE(configuredPaths().empty());
    cli.navConfiguredIs(false);
    cli.navConfiguredIs(true);
    EXPECT_EQ(root->navContainer(), nullptr) << "the old one is watched no more";
    root->inputIs(&NavInputs::cliConfig, in.cliConfig.ptr());

    const auto statusDir = Vel::make<NavStatusDir>("navStatusDir");
    root->inputIs(&NavInputs::navStatusDir, statusDir);
    EXPECT_TRUE(!in.navStatusDir->navPathStatusDir() && in.navStatusDir->navRemoteIpList().empty());
    EXPECT_TRUE(statusDir->navRemoteIpListHas(ip("10.255.0.2")));
}

}  // namespace
}  // namespace Nav::Test

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/nav/NavFixture.h"

namespace Nav::Test {
namespace {

class ShowTest : public NavFixture {
  protected:
    ShowTest() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0); }
    ~ShowTest() override {
        ::close(pair[0]);
        ::close(pair[1]);
    }

    void request(int fd, const char* command) {
        in.navCliRequestDir->requestIs("request " + std::to_string(++requests_),
                                       [&](auto& request) {
                                           request.socketIs(static_cast<U32>(fd));
                                           request.commandIs(command);
                                       });
    }
    static std::string received(int fd) {
        std::string text;
        char buffer[65536];
        for (ssize_t n; (n = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;)
            text.append(buffer, static_cast<size_t>(n));
        return text;
    }
    std::string show(const char* command) {
        request(pair[0], command);
        return received(pair[1]);
    }
    // Two groups, two paths.
    void twoPaths() {
        address("wan1", "203.0.113.1/24");
        listIntf("internet", "wan1");
        via("internet", "10.255.0.2", "198.51.100.2");
        address("lte1", "192.0.2.1/24");
        listIntf("lte", "lte1");
        via("lte", "10.255.0.3", "2001:db8::3");
    }

    int pair[2];

  private:
    int requests_ = 0;
};

TEST_F(ShowTest, AnswersByteForByte) {
    start();
    EXPECT_EQ(show("NAVPATHS") + show("NAVPEERS") + show("NAVMAPPINGS"), "{ }{ }{ }");
    twoPaths();
    EXPECT_EQ(show("NAVPATHS"),
              "{'navPathSelPaths': [{ 'pathGroup' : 'internet', 'source' : '203.0.113.1', "
              "'destination' : '198.51.100.2', 'peer' : '10.255.0.2', 'state' : 'Route Pending', "
              " 'pathName': 'Path1', }, { 'pathGroup' : 'lte', 'source' : '192.0.2.1', "
              "'destination' : '2001:db8::3', 'peer' : '10.255.0.3', 'state' : 'Route Pending', "
              " 'pathName': 'Path2', }, ]}");
    EXPECT_EQ(show("NAVPEERS"), "{'navPeers': {1 : '10.255.0.2', 2 : '10.255.0.3', }}");
    navDb().vrfAppIs({{5, 4000000000}, "blue", "voice"});
    const std::string mappings =
        "{'groups': {1 : 'internet', 2 : 'lte', }, 'vrfApps': {(5, "
        "4000000000): ('blue', 'voice'), }}";
    for (const char* word : {"NAVMAPPINGS", "NAVMAPPI", "NAVMAPPIxyz", "NAVMAPPINGS and more"})
        EXPECT_EQ(show(word), mappings) << word;
    EXPECT_EQ(show("NAVPEERSxyz"), show("NAVPEERS"));
    for (const char* word : {"NAVPATH", "navpaths", "", "XNAVPATHS"})
        EXPECT_EQ(show(word), "") << word;
}

TEST_F(ShowTest, StateWords) {
    twoPaths();
    start();
    using enum PathType;
    using enum PathState;
    const Shard::Fib::Via none, via{ip("203.0.113.254"), Netz::IntfId("wan1")};
    auto& entry =
        *pathStatusDir().pathStatus("default")->pathStatusEntry(key("203.0.113.1", "198.51.100.2"));
    // That of the first path.
    const auto word = [&](bool programmed, PathType type, PathState state, const auto& over) {
        entry.pathInfoIs({type, state, 1, over});
        entry.programmedIs(programmed);
        const std::string answer = show("NAVPATHS");
        const std::string rest = answer.substr(answer.find("'state' : '") + 11);
        return rest.substr(0, rest.find('\''));
    };
    EXPECT_EQ(word(true, unsecuredPath, resolved, via), "Estab");
    EXPECT_EQ(word(true, securedPath, unresolved, none), "Ipsec Estab");
    EXPECT_EQ(word(false, securedPath, resolved, via), "Arp Pending");
    EXPECT_EQ(word(false, unsecuredPath, unresolved, via), "Unknown");
    EXPECT_EQ(word(false, invalidPath, unresolved, Shard::Fib::Via{{}, {}, 16}), "Unknown");
    EXPECT_EQ(word(false, securedPath, unresolved, none), "Route Pending");
    EXPECT_EQ(word(false, securedPath, unresolved, via), "Ipsec Pending");
    // The path of another VRF has a state of its own, in whichever order they are shown.
    vrfId("blue", 5);
    intfVrf("lte1", "blue");
    entry.programmedIs(true);
    EXPECT_NE(show("NAVPATHS").find("'Route Pending',  'pathName': 'Path3'"), std::string::npos);
    pathStatusDir()
        .pathStatus("blue")
        ->pathStatusEntry(key("192.0.2.1", "2001:db8::3", 5))
        ->programmedIs(true);
    EXPECT_EQ(show("NAVPATHS").find("Pending"), std::string::npos);
}

TEST_F(ShowTest, EachRequestIsAnsweredOnce) {
    request(pair[0], "NAVPEERS");
    start(false);
    EXPECT_EQ(received(pair[1]), "% NavRootSm is not initialized\n") << "asked before the start";
    cli.navConfiguredIs(true);
    twoPaths();
    EXPECT_EQ(show("NAVPEERS"), "{'navPeers': {1 : '10.255.0.2', 2 : '10.255.0.3', }}");
    for (bool on : {false, true}) cli.navConfiguredIs(on);
    EXPECT_EQ(received(pair[1]), "") << "not again, whatever happens to the container";
    const Vel::Ptr<CliCallback> held(*root->navCliCallback());
    root = nullptr;
    held->handleCommand(static_cast<U32>(pair[0]), "NAVPEERS");
    EXPECT_EQ(received(pair[1]), "") << "by nobody, when the root has gone";
}

// Were one of these to block, raise a signal or throw, the test would not come to its end.
TEST_F(ShowTest, OddDescriptorsDisturbNobody) {
    for (int site = 1; site <= 64; ++site)
        via("internet", "10.255.0." + std::to_string(site), "198.51.100." + std::to_string(site));
    listIntf("internet", "wan1");
    address("wan1", "203.0.113.1/24");
    start();
    const std::string whole = show("NAVPATHS");
    EXPECT_GT(whole.size(), 8192u);

    // A client that does not read: whatever room the answer has left is full.
    const std::string filling(1 << 20, 'x');
    while (::send(pair[0], filling.data(), filling.size(), MSG_DONTWAIT) > 0) continue;
    request(pair[0], "NAVPATHS");
    const std::string taken = received(pair[1]);
    EXPECT_LT(taken.size() - taken.rfind('x'), whole.size());

    request(-1, "NAVPATHS");
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    std::vector<char> begin(whole.size());
    request(pipe[1], "NAVPATHS");
    EXPECT_EQ(::read(pipe[0], begin.data(), begin.size()), ssize_t(whole.size()));
    ::fcntl(pipe[1], F_SETPIPE_SZ, 4096);
    request(pipe[1], "NAVPATHS");  // takes less than the answer
    const ssize_t fits = ::read(pipe[0], begin.data(), begin.size());
    EXPECT_TRUE(fits > 0 && whole.compare(0, size_t(fits), begin.data(), size_t(fits)) == 0);
    ::close(pipe[0]);
    request(pipe[1], "NAVPATHS");
    ::close(pipe[1]);
    ::shutdown(pair[1], SHUT_RDWR);
    request(pair[0], "NAVPATHS");
}

}  // namespace
}  // namespace Nav::Test

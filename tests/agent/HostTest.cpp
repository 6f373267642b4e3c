// The requests of the control socket on a host, and the whole agent as a process, with the platform
// played by hand.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "agent/Control.h"
#include "navctl/Client.h"

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
        void sendEvent(const Json&) override {}
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
    Agent::Control control{host};
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

class HostTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string name = testing::TempDir() + "host.XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        dir = name;
    }
    void TearDown() override {
        if (agent > 0) kill(agent, SIGKILL), statusOfAgent();
        std::filesystem::remove_all(dir);
    }

    void start(const std::string& config) {
        agent = fork();
        if (agent != 0) return;
        if (freopen((dir + "/errors").c_str(), "w", stderr) == nullptr) _exit(99);
        execl(NAV_AGENT, NAV_AGENT, "--run-dir", run().c_str(), "--platform", "manual",
              "--log-level", "8", "--config", config.c_str(), nullptr);
        _exit(98);
    }
    int statusOfAgent() {
        int status = 0;
        waitpid(std::exchange(agent, 0), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    std::unique_ptr<Navctl::Client> connect() {
        std::unique_ptr<Navctl::Client> client;
        EXPECT_TRUE(await([&] {
            try {
                client = std::make_unique<Navctl::Client>(run());
            } catch (const Navctl::NoAgent&) {
            }
            return client != nullptr;
        }));
        return client;
    }
    template <class Condition>
    static bool await(Condition condition) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::yield();
        }
        return true;
    }
    std::string run() const { return dir + "/run"; }
    bool said(const std::string& text) const {
        return Agent::readFile(dir + "/errors").find(text) != std::string::npos;
    }

    std::string dir;
    pid_t agent = 0;
};

TEST_F(HostTest, AnAddressMakesPathsAndEverySocketTellsOfThem) {
    start(NAV_EXAMPLES "/branch/branch.json");
    const auto client = connect(), watcher = connect();
    auto watch = [&](const char* path) {
        return watcher->request({{"op", "watch"}, {"path", path}}).at("value");
    };
    // The signs and keys of so many events at or below a path, others passed over.
    auto told = [&](const std::string& path, size_t count) {
        std::string text;
        while (count > 0) {
            const Json event = Agent::parseJson(watcher->connection().readLine().value());
            if (!event.at("path").get<std::string>().starts_with(path)) continue;
            text += event.at("event") == "set" ? '+' : '-';
            --count;
        }
        return text;
    };
    const char* paths = "/pathConfigDir/pathConfig[default]/pathConfigEntry";
    const char* address = "/ipStatusDir/ipIntfStatus[wan1]/activeAddrWithMask";
    EXPECT_TRUE(watch("/navDb/pathIndex").is_number());
    EXPECT_EQ(watch(paths), nullptr);
    client->request(set(address, "203.0.113.1/24"));
    EXPECT_EQ(client->get(paths).size(), 4u);
    EXPECT_EQ(told(paths, 5), "+++++");  // the collection, then its entries
    const std::string shown =
        client->request({{"op", "show"}, {"command", "NAVPATHS"}}).at("value");
    EXPECT_TRUE(shown.starts_with("{'navPathSelPaths': [{ 'pathGroup' : 'internet', 'source' : "));
    EXPECT_EQ(Navctl::showText(run(), "NAVPATHS"), shown);
    EXPECT_EQ(client->request({{"op", "show"}, {"command", "NOTHING"}}).at("value"), "");
    EXPECT_EQ(client->request({{"op", "trace"}, {"last", 3}}).at("value").size(), 3u);

    client->request(set(address, "203.0.113.2/24"));
    EXPECT_EQ(told(paths, 8), "----++++");
    client->request(set("/cliConfig/navConfigured", false));
    EXPECT_EQ(client->get("/navDb"), nullptr);
    EXPECT_EQ(Navctl::showText(run(), "NAVPATHS"), "{ }");
    client->request(set("/cliConfig/navConfigured", true));
    EXPECT_EQ(told("/navDb", 2), "-+");
    kill(agent, SIGTERM);
    EXPECT_EQ(statusOfAgent(), 0);
}

TEST_F(HostTest, AHangUpLoadsTheFileAgainAndABadFileChangesNothing) {
    const std::string file = dir + "/config.json";
    auto write = [&](const std::string& text) {
        std::ofstream(file + ".new") << text;
        std::filesystem::rename(file + ".new", file);
    };
    write(R"({"udpPortConfig": 1, "vrfConfig": {"v": {"policyName": "p"}}})");
    start(file);
    const auto client = connect();
    client->request({{"op", "watch"}, {"path", "/cliConfig"}});
    EXPECT_TRUE(said(file + ": warning: VRF \"v\" names policy \"p\", which is not there\n"));

    write("{\"udpPortConfig\": 2,\n \"pathGroupConfig\": {\"a\": {\"localintf\": []}}}");
    kill(agent, SIGHUP);
    EXPECT_TRUE(await([&] { return said("line 2: /pathGroupConfig/a/localintf"); }));
    EXPECT_EQ(client->get("/cliConfig/udpPortConfig"), 1);
    write(R"({"udpPortConfig": 3})");
    kill(agent, SIGHUP);
    EXPECT_EQ(client->connection().readLine(),
              R"({"event":"del","path":"/cliConfig/vrfConfig[v]","value":null})");
    EXPECT_EQ(client->connection().readLine(),
              R"({"event":"set","path":"/cliConfig/udpPortConfig","value":3})");

    kill(agent, SIGTERM);
    EXPECT_EQ(statusOfAgent(), 0);
    write("{\"udpPortConfig\": 70000}");
    start(file);
    EXPECT_EQ(statusOfAgent(), 1);
    EXPECT_TRUE(said(file + ": line 1: /udpPortConfig: expected"));
}

}  // namespace

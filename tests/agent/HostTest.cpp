// The whole agent: requests through its sockets, with the platform played by hand.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "agent/Json.h"
#include "agent/RunDir.h"

namespace {

using Agent::Json;

// A client of one of the sockets; every wait has a deadline.
class Client {
  public:
    explicit Client(const std::string& path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const timeval patience{20, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        const sockaddr_un address = Agent::socketAddress(path);
        connected = connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~Client() { close(fd_); }

    void send(const std::string& text) { ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL); }
    Json line() {
        size_t end;
        while ((end = buffer_.find('\n')) == buffer_.npos)
            if (!fill()) return "<end>";
        const Json result = Agent::parseJson(buffer_.substr(0, end));
        buffer_.erase(0, end + 1);
        return result;
    }
    std::string all() {
        while (fill()) {
        }
        return buffer_;
    }
    // The value of the answer, or the error of a refusal as a string.
    Json ask(Json request) {
        send(request.dump() + "\n");
        const Json answer = line();
        return answer.contains("value") ? answer.at("value") : answer.at("error");
    }

    bool connected;

  private:
    bool fill() {
        char bytes[65536];
        const ssize_t count = recv(fd_, bytes, sizeof bytes, 0);
        if (count > 0) buffer_.append(bytes, static_cast<size_t>(count));
        return count > 0;
    }

    const int fd_;
    std::string buffer_;
};

class HostTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string name = testing::TempDir() + "host.XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        dir = name;
    }
    void TearDown() override {
        if (agent > 0) kill(agent, SIGKILL), waitpid(agent, nullptr, 0);
        std::filesystem::remove_all(dir);
    }

    void start(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {NAV_AGENT, "--run-dir", dir + "/run"});
        agent = fork();
        if (agent != 0) return;
        if (freopen((dir + "/errors").c_str(), "w", stderr) == nullptr) _exit(99);
        std::vector<char*> argv;
        for (std::string& each : arguments) argv.push_back(each.data());
        argv.push_back(nullptr);
        execv(NAV_AGENT, argv.data());
        _exit(98);
    }
    int statusOfAgent() {
        int status = 0;
        waitpid(std::exchange(agent, 0), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    std::unique_ptr<Client> connect(const char* socket = Agent::controlSocketName) {
        std::unique_ptr<Client> client;
        await([&] {
            client = std::make_unique<Client>(dir + "/run/" + socket);
            return client->connected;
        });
        return client;
    }
    template <class Condition>
    static void await(Condition condition) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!condition() && std::chrono::steady_clock::now() < deadline) {
        }
        ASSERT_TRUE(condition());
    }
    std::string errors() { return Agent::readFile(dir + "/errors"); }

    std::string dir;
    pid_t agent = 0;
};

Json get(const std::string& path) {
    return {{"op", "get"}, {"path", path}};
}
Json set(const std::string& path, const Json& value) {
    return {{"op", "set"}, {"path", path}, {"value", value}};
}
Json del(const std::string& path) {
    return {{"op", "del"}, {"path", path}};
}

TEST_F(HostTest, AConfigurationAndAnAddressMakePathsAndEverySocketTellsOfThem) {
    start({"--platform", "manual", "--log-level", "8", "--config",
           NAV_EXAMPLES "/branch/branch.json"});
    auto client = connect(), watcher = connect();
    const Json ping = client->ask({{"op", "ping"}});
    EXPECT_EQ(ping.at("platform"), "manual");
    EXPECT_EQ(ping.at("pid"), agent);

    EXPECT_TRUE(watcher->ask({{"op", "watch"}, {"path", "/navDb/pathIndex"}}).is_number());
    const std::string paths = "/pathConfigDir/pathConfig[default]/pathConfigEntry";
    EXPECT_EQ(watcher->ask({{"op", "watch"}, {"path", paths}}), nullptr);
    client->ask(set("/ipStatusDir/ipIntfStatus[wan1]/activeAddrWithMask", "203.0.113.1/24"));
    const Json first = client->ask(get(paths));
    ASSERT_EQ(first.size(), 4u);
    for (size_t told = 0; told < 4;) {
        const Json event = watcher->line();
        ASSERT_EQ(event.at("event"), "set");
        if (event.at("path").get<std::string>().starts_with(paths + "[")) ++told;
    }
    const std::string shown = client->ask({{"op", "show"}, {"command", "NAVPATHS"}});
    EXPECT_TRUE(
        shown.starts_with("{'navPathSelPaths': [{ 'pathGroup' : 'internet', 'source' : "
                          "'203.0.113.1', "))
        << shown;
    auto command = connect(Agent::commandSocketName);
    command->send("NAVPATHS\n");
    EXPECT_EQ(command->all(), shown);
    EXPECT_EQ(client->ask({{"op", "show"}, {"command", "NOTHING"}}), "");
    EXPECT_EQ(client->ask({{"op", "trace"}, {"last", 3}}).size(), 3u);

    // The address moves: the paths follow, all gone before any comes.
    client->ask(set("/ipStatusDir/ipIntfStatus[wan1]/activeAddrWithMask", "203.0.113.2/24"));
    std::string order;
    while (order.size() < 8) {
        const Json event = watcher->line();
        const auto path = event.at("path").get<std::string>();
        if (path.ends_with("]")) order += event.at("event") == "set" ? '+' : '-';
    }
    EXPECT_EQ(order, "----++++");

    // The database comes and goes with the feature.
    client->ask(set("/cliConfig/navConfigured", false));
    EXPECT_EQ(client->ask(get("/navDb")), nullptr);
    EXPECT_EQ(client->ask({{"op", "show"}, {"command", "NAVPATHS"}}), "{ }");
    Json event;
    do event = watcher->line();
    while (event.at("path") != "/navDb/pathIndex" || event.at("event") != "del");
    client->ask(set("/cliConfig/navConfigured", true));
    do event = watcher->line();
    while (event.at("path") != "/navDb/pathIndex");
    EXPECT_EQ(event.at("event"), "set");

    kill(agent, SIGTERM);
    EXPECT_EQ(statusOfAgent(), 0);
    EXPECT_EQ(errors(), "");
}

TEST_F(HostTest, OnlyTheConfigurationIsWrittenWhereAPlatformPlaysTheServices) {
    start({"--platform", "sim"});
    auto client = connect();
    const Json before = client->ask(get("/cliConfig"));
    EXPECT_NE(client->ask(set("/ipStatusDir/ipIntfStatus[wan1]", Json::object()))
                  .get<std::string>()
                  .find("belongs to the interface service"),
              std::string::npos);
    EXPECT_NE(client->ask(del("/navStatusDir/navRuleStatus[x]"))
                  .get<std::string>()
                  .find("belongs to path selection"),
              std::string::npos);

    // Configuration is held against the whole of what it would be afterwards.
    const std::string group = "/cliConfig/pathGroupConfig";
    EXPECT_EQ(client->ask(set(group + "[a]/localIntf[wan1]", true)), nullptr);
    EXPECT_EQ(client->ask(set(group + "[b]/localIntf", {"wan2", "wan1"})),
              "/cliConfig/pathGroupConfig/b/localIntf/1: wan1 is in path group \"a\" already");
    Json vias = Json::array();
    for (int i = 1; i <= 128; ++i) vias.push_back("10.0.0." + std::to_string(i));
    const std::string site = group + "[a]/remoteViaConfig[192.0.2.1]/remoteVia";
    EXPECT_EQ(client->ask(set(site, vias)), nullptr);
    const Json full = client->ask(get("/cliConfig"));
    EXPECT_EQ(client->ask(set(site + "[10.0.1.1]", true)),
              "/cliConfig/pathGroupConfig: this needs 129 paths, there are at most 128");
    EXPECT_EQ(client->ask(get("/cliConfig")), full);
    EXPECT_EQ(client->ask(del(site + "[10.0.0.128]")), nullptr);
    EXPECT_EQ(client->ask(set(site + "[10.0.1.1]", true)), nullptr);
    EXPECT_NE(client->ask(del(group + "[b]")), nullptr);

    client->send(set("/cliConfig/vrfConfig[v]/policyName", "p").dump() + "\n");
    EXPECT_EQ(client->line().at("warnings").size(), 1u);
    EXPECT_EQ(client->ask({{"op", "load"}, {"value", before}}), nullptr);
    EXPECT_EQ(client->ask(get("/cliConfig")), before);
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
        EXPECT_TRUE(client->ask(bad).is_string()) << bad;
    EXPECT_EQ(client->ask(get("/cliConfig")), before);
}

TEST_F(HostTest, AHangUpLoadsTheFileAgainAndABadFileChangesNothing) {
    const std::string file = dir + "/config.json";
    auto write = [&](const std::string& text) {
        std::ofstream(file + ".new") << text;
        std::filesystem::rename(file + ".new", file);
    };
    write(R"({"udpPortConfig": 1, "vrfConfig": {"v": {"policyName": "p"}}})");
    start({"--platform", "manual", "--config", file});
    auto client = connect();
    EXPECT_EQ(client->ask(get("/cliConfig/udpPortConfig")), 1);
    EXPECT_EQ(errors(), "nav-agent: " + file +
                            ": warning: VRF \"v\" names policy \"p\", which is not there\n");
    EXPECT_EQ(client->ask({{"op", "watch"}, {"path", "/cliConfig"}}).at("udpPortConfig"), 1);

    write("{\"udpPortConfig\": 2,\n \"pathGroupConfig\": {\"a\": {\"localintf\": []}}}");
    kill(agent, SIGHUP);
    await(
        [&] { return errors().find("line 2: /pathGroupConfig/a/localintf") != std::string::npos; });
    EXPECT_EQ(client->ask(get("/cliConfig/udpPortConfig")), 1);
    write(R"({"udpPortConfig": 3})");
    kill(agent, SIGHUP);
    EXPECT_EQ(client->line().at("path"), "/cliConfig/vrfConfig[v]");
    EXPECT_EQ(client->line().at("value"), 3);

    kill(agent, SIGTERM);
    EXPECT_EQ(statusOfAgent(), 0);
    write("{\"udpPortConfig\": 70000}");
    start({"--platform", "manual", "--config", file});
    EXPECT_EQ(statusOfAgent(), 1);
    EXPECT_NE(errors().find(file + ": line 1: /udpPortConfig: expected"), std::string::npos);
}

}  // namespace

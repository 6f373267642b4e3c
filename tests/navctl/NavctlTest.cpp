// navctl against an agent made of two real sockets and a scripted handler: what it prints, what it
// sends, how it ends.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <sstream>
#include <thread>

#include "agent/base/RunDir.h"
#include "agent/shell/CommandServer.h"
#include "agent/shell/ControlServer.h"
#include "navctl/Cli.h"
#include "navctl/Literal.h"
#include "navctl/Table.h"
#include "tests/TempDir.h"

namespace {

using Agent::Json;

TEST(LiteralTest, RefusesEverythingElse) {
    // clang-format off
    const std::vector<std::string> texts = {
        "", " ", "{", "{'a'", "{'a': }", "{'a': 1 'b': 2}", "{'a': 1,, }", "{, }", "[1", "(1]",
        "{'a': 1} x", "{'a': 'it's', }", "'open", "-1", "1.5", "99999999999999999999999",
        "{[1]: 2}", "{((1, 2), 3): 4}", "{(): 1}", "{{'a': 1}: 1}", "True", "{\"a\": 1}",
        std::string("{ }\0", 4), std::string(100000, '['), "% NavRootSm is not initialized\n"};
    // clang-format on
    for (const std::string& text : texts) {
        EXPECT_THROW(Navctl::parseLiteral(text), Navctl::LiteralError) << text.substr(0, 40);
    }
}

TEST(TableTest, AlignsByCharactersAndKeepsControlCharactersFromTheTerminal) {
    const Navctl::Table table{{"path group", "state", "sites"},
                              {{"zürich", "Estab", 1}, {"a\x1b[2J\n", nullptr, Json::array()}}};
    std::ostringstream plain, coloured;
    Navctl::printTable(plain, table, false);
    EXPECT_EQ(plain.str(),
              "PATH GROUP  STATE  SITES\n"
              "zürich      Estab  1\n"
              "a?[2J?      -      -\n");
    Navctl::printTable(coloured, table, true);
    EXPECT_NE(coloured.str().find("\x1b[32mEstab\x1b[0m  1\n"), std::string::npos);
}

// Plays the agent on a thread of its own.
class FakeAgent : Agent::RequestHandler {
  public:
    explicit FakeAgent(const std::string& dir) {
        std::promise<void> listening;
        thread_ = std::thread([this, dir, &listening] { serve(dir, listening); });
        listening.get_future().wait();
    }
    ~FakeAgent() override {
        std::ostringstream ignored;
        std::istringstream stop(R"({"op":"stop"})");
        Navctl::run({"--run-dir", dir_, "batch", "-"}, {stop, ignored, ignored});
        thread_.join();
    }

    // Written before the agent is asked, read after it has answered.
    std::map<std::string, std::string> tree, commands;
    std::vector<std::string> requests;

  private:
    void serve(const std::string& dir, std::promise<void>& listening) {
        Loom::MonotonicClock clock;
        Loom::TaskScheduler scheduler(clock);
        Agent::EventLoop loop(scheduler);
        loop_ = &loop;
        dir_ = dir;
        Agent::CommandServer command(loop, dir + "/command.sock",
                                     [this](const std::string& word) { return commands[word]; });
        Agent::ControlServer control(loop, dir + "/control.sock", *this);
        listening.set_value();
        loop.run();
        flood_ = {};
    }
    Agent::Answer handle(const std::string& op, const Json& request,
                         Agent::Session& session) override {
        if (op == "stop") loop_->stop();
        if (op != "get" && op != "stop") requests.push_back(request.dump());
        if (op == "get" || op == "watch") {
            const auto found = tree.find(request.at("path"));
            if (found == tree.end()) throw Agent::RequestError("no such place");
            if (op == "watch") {
                flood_ = loop_->onTimer(std::chrono::nanoseconds{0}, [&session] {
                    for (int i = 0; i < 6000; ++i) {
                        session.sendEvent(std::make_shared<const std::string>(
                            R"({"event":"set","value":")" + std::string(1000, 'x') + "\"}"));
                    }
                });
            }
            return Agent::parseJson(found->second);
        }
        if (op == "trace") return Json{"one", "two"};
        if (op == "save")
            return Json{{"forwarding", Agent::parseJson(R"({"probe":{"key":"s3cret"}})")}};
        Agent::Answer answer;
        if (op == "check" || op == "del") answer.warnings = {"policy x is not configured"};
        return answer;
    }
    void sessionClosed(Agent::Session&) override {}

    std::string dir_;
    Agent::EventLoop* loop_ = nullptr;
    Agent::EventLoop::Registration flood_;
    std::thread thread_;
};

class NavctlTest : public testing::Test {
  protected:
    int run(std::vector<std::string> arguments, const std::string& input = {}) {
        arguments.insert(arguments.begin(), {"--run-dir", dir});
        std::istringstream in(input);
        std::ostringstream standard, error;
        const int status = Navctl::run(arguments, {in, standard, error});
        out = standard.str();
        err = error.str();
        return status;
    }
    std::string write(const std::string& name, const std::string& text) {
        std::ofstream(dir + "/" + name) << text;
        return dir + "/" + name;
    }

    TempDir own;
    const std::string& dir = own.path;
    std::string out, err;
    std::optional<FakeAgent> agent{std::in_place, dir};
};

TEST_F(NavctlTest, ExitStatusSaysWhoIsAtFault) {
    agent->tree["/a"] = R"({"b":[1,"x"]})";
    EXPECT_EQ(run({"get", "/a"}), 0);
    EXPECT_EQ(Agent::parseJson(out), Agent::parseJson(agent->tree["/a"]));
    EXPECT_EQ(run({"get", "/b"}), 1);
    EXPECT_EQ(err, "navctl: no such place\n");
    EXPECT_EQ(run({"--json", "get", "/b"}), 1);
    EXPECT_EQ(err, "{\"ok\":false,\"error\":\"no such place\"}\n");
    EXPECT_EQ(out, "");
    std::ostream full(nullptr);
    std::istringstream none;
    std::ostringstream reason;
    for (const char* command : {"get", "watch", "--help"})
        EXPECT_EQ(Navctl::run({"--run-dir", dir, command, "/a"}, {none, full, reason}), 1);
    EXPECT_TRUE(reason.str().starts_with("navctl: standard output: ")) << reason.str();
    // clang-format off
    const std::vector<std::vector<std::string>> wrong = {
        {}, {"get"}, {"get", "/a", "/b"}, {"show"}, {"show", "sites", "--raw"}, {"trace", "--last", "many"}, {"load", dir + "/none"},
        {"load", dir}, {"completion", "fish"}, {"batch", dir + "/none"}};
    // clang-format on
    for (const auto& bad : wrong) {
        EXPECT_EQ(run(bad), 2) << (bad.empty() ? "" : bad[0]);
        EXPECT_NE(err, "");
        EXPECT_EQ(out, "");
    }
    EXPECT_EQ(run({"show", "moon"}), 2);
    EXPECT_EQ(err, "navctl: unknown command \"moon\"; see navctl --help\n");
    EXPECT_EQ(run({"--fast", "--json"}), 2);
    EXPECT_EQ(err, "{\"ok\":false,\"error\":\"unknown option \\\"--fast\\\"\"}\n");
    agent.reset();
    for (const std::vector<std::string>& request : std::initializer_list<std::vector<std::string>>{
             {"get", "/a"}, {"show", "paths"}, {"show", "groups"}, {"batch", "-"}, {"ping"}}) {
        EXPECT_EQ(run(request), 3);
        EXPECT_NE(err.find("no agent at"), std::string::npos);
    }
    const uid_t user = geteuid();
    user == 0 ? seteuid(65534) : chmod(dir.c_str(), 0);
    EXPECT_EQ(run({"ping"}), 4);
    EXPECT_NE(err.find("permission denied: " + dir), std::string::npos) << err;
    user == 0 ? seteuid(0) : chmod(dir.c_str(), 0700);
    EXPECT_EQ(run({"get", "--help"}), 0);
    agent.emplace(dir);
}

TEST_F(NavctlTest, ValuesAndFilesReachTheAgentAsTheyWereMeant) {
    EXPECT_EQ(run({"set", "/a", "{\"z\":1,\"a\":[true]}"}), 0);
    EXPECT_EQ(run({"set", "/a", "wan 1"}), 0);
    EXPECT_EQ(run({"set", "/a", "-5"}), 0);
    EXPECT_EQ(run({"del", "/a[x,y]"}), 0);
    EXPECT_EQ(err, "warning: policy x is not configured\n");
    EXPECT_EQ(run({"load", write("good", "{\"udpPortConfig\": 1,\n\"navConfigured\": true}")}), 0);
    EXPECT_EQ(err, "warning: policy x is not configured\n");
    const std::string bad = write("bad", "{\"z\": 1,\n\"a\": }");
    EXPECT_EQ(run({"load", bad}), 1);
    EXPECT_NE(err.find(bad + ": line 2"), std::string::npos);
    EXPECT_EQ(agent->requests,
              (std::vector<std::string>{
                  R"({"op":"set","path":"/a","value":{"z":1,"a":[true]}})",
                  R"({"op":"set","path":"/a","value":"wan 1"})",
                  R"({"op":"set","path":"/a","value":-5})", R"({"op":"del","path":"/a[x,y]"})",
                  R"({"value":{"udpPortConfig":1,"navConfigured":true},"op":"check"})",
                  R"({"value":{"udpPortConfig":1,"navConfigured":true},"op":"load"})"}));

    // A file is replaced in place of a link's target, with its mode, or not at all.
    agent->tree["/cliConfig"] = R"({"udpPortConfig":1,"vrfConfig":{"v":{}}})";
    const std::filesystem::path saved = write("target", "old");
    std::filesystem::permissions(saved, std::filesystem::perms(0640));
    std::filesystem::create_symlink("target", dir + "/saved");
    EXPECT_EQ(run({"save", dir + "/saved"}), 0);
    EXPECT_TRUE(std::filesystem::is_symlink(dir + "/saved"));
    EXPECT_EQ(std::filesystem::status(saved).permissions(), std::filesystem::perms(0640));
    EXPECT_EQ(run({"load", dir + "/saved"}), 0);
    EXPECT_EQ(agent->requests.back(),
              R"({"value":{"udpPortConfig":1,"vrfConfig":{"v":{}}},"op":"load"})");
    // Keys get into a file that nobody else may read, and not to standard output.
    const std::string forwarding = dir + "/saved";
    EXPECT_EQ(run({"save", "--forwarding", forwarding}), 0);
    EXPECT_EQ(std::filesystem::status(saved).permissions(), std::filesystem::perms(0600));
    EXPECT_EQ(run({"load", write("good", "{}"), "--forwarding", forwarding}), 0);
    EXPECT_EQ(agent->requests.back(),
              R"({"value":{},"forwarding":{"probe":{"key":"s3cret"}},"op":"load"})");
    agent->tree["/forwardingConfig"] = R"--({"probe":{"key":"(hidden)"}})--";
    EXPECT_EQ(run({"save", "--forwarding", "-"}), 0);
    EXPECT_EQ(Agent::parseJson(out), Agent::parseJson(agent->tree["/forwardingConfig"]));
    EXPECT_EQ(run({"save", "--forwarding", "/dev/null"}), 2);
    EXPECT_EQ(run({"save", "-", "--forwarding", "-"}), 2);
    EXPECT_EQ(run({"load"}), 2);
    EXPECT_EQ(run({"check", write("good", "{}"), "--forwarding",
                   write("bound", R"({"application":{"x":{"match":{"1":{}}}}})")}),
              0);
    EXPECT_EQ(err, "warning: application \"x\" is named by no policy\n");
    EXPECT_EQ(run({"save", "/dev/full"}), 2);
    EXPECT_EQ(run({"save", dir + "/no/where"}), 2);
    EXPECT_EQ(err, "navctl: " + dir + "/no/where: No such file or directory\n");
}

TEST_F(NavctlTest, ABatchGoesOnAfterARefusalAndSaysSoAtTheEnd) {
    agent->tree["/a"] = "1";
    EXPECT_EQ(run({"batch", "-"},
                  "{\"op\":\"get\",\"path\":\"/b\",\"id\":1}\n\n"
                  "{\"op\":\"get\",\"path\":\"/a\",\"id\":2}"),
              1);
    EXPECT_EQ(out,
              "{\"id\":1,\"ok\":false,\"error\":\"no such place\"}\n"
              "{\"id\":2,\"ok\":true,\"value\":1}\n");
    EXPECT_EQ(run({"batch", write("batch", "{\"op\":\"trace\"}\n")}), 0);
    EXPECT_EQ(run({"batch", "-"}, std::string(2 << 20, 'x') + "\n"), 1);
}

TEST_F(NavctlTest, ACheckNeedsNoAgentAndNamesTheLine) {
    agent.reset();
    EXPECT_EQ(run({"check", write("good", R"({"vrfConfig":{"v":{"policyName":"p"}}})")}), 0);
    EXPECT_EQ(err, "warning: VRF \"v\" names policy \"p\", which is not configured\n");
    const std::string bad = write("bad", "{\n\"vrfConfig\": {\n\"v\": {\n\"policy\": 1}}}");
    EXPECT_EQ(run({"check", bad}), 1);
    EXPECT_EQ(err,
              "navctl: " + bad + ": line 4: /cliConfig/vrfConfig[v]/policy: unknown attribute\n");
    EXPECT_EQ(run({"check", dir + "/none"}), 2);
}

TEST_F(NavctlTest, AWatchPrintsTheValueThenEventsAndSaysWhenItFellBehind) {
    agent->tree["/a"] = "{\"b\": 1}";
    EXPECT_EQ(run({"watch", "/b"}), 1);
    EXPECT_EQ(run({"watch", "/a"}), 1);
    EXPECT_TRUE(out.starts_with("{\"b\":1}\n{\"event\":\"set\","));
    EXPECT_TRUE(out.ends_with("\n{\"event\":\"overrun\"}\n"));
    EXPECT_NE(err.find("did not keep up"), std::string::npos);
}

TEST_F(NavctlTest, ShowCommandsTellTablesFromMessages) {
    agent->commands = {{"NAVPATHS", "{'navPathSelPaths': [{ 'pathGroup' : 'it's', }, ]}"},
                       {"NAVPEERS", "% NavRootSm is not initialized\n"},
                       {"NAVMAPPINGS", "{ }"}};
    EXPECT_EQ(run({"show", "paths", "--raw"}), 0);
    EXPECT_EQ(out, agent->commands["NAVPATHS"]);
    EXPECT_EQ(run({"show", "paths"}), 1);
    EXPECT_NE(err.find("--raw"), std::string::npos);
    EXPECT_EQ(run({"show", "peers"}), 1);
    EXPECT_EQ(err, "navctl: NavRootSm is not initialized\n");
    EXPECT_EQ(run({"show", "mappings"}), 0);
}

TEST_F(NavctlTest, CompletionKnowsCommandsPathsAndKeys) {
    agent->tree["/"] = R"(["cliConfig","navDb","navStatusDir"])";
    agent->tree["/cliConfig"] = R"({"navConfigured":true,"pathGroupConfig":{}})";
    agent->tree["/cliConfig/pathGroupConfig"] = R"({"internet":{},"in\\]ner":{},"mpls":{}})";
    agent->tree["/cliConfig/pathGroupConfig[internet]"] = R"({"localIntf":["et1"]})";
    agent->tree["/cliConfig/pathGroupConfig[internet]/localIntf"] = R"(["et1","et2"])";
    for (const auto& [words, expected] :
         std::initializer_list<std::pair<std::vector<std::string>, std::string>>{
             {{"sh"}, "show\n"},
             {{"--json", "show", "p"}, "paths\npeers\npolicies\n"},
             {{"show", "paths", "--r"}, "--raw\n--run-dir\n"},
             {{"get", "/nav"}, "/navDb\n/navStatusDir\n"},
             {{"get", "/cliConfig/"}, "/cliConfig/navConfigured\n/cliConfig/pathGroupConfig\n"},
             {{"set", "/cliConfig/pathGroupConfig[in"},
              "/cliConfig/pathGroupConfig[in\\]ner]\n/cliConfig/pathGroupConfig[internet]\n"},
             {{"del", "/cliConfig/pathGroupConfig[internet]/localIntf["},
              "/cliConfig/pathGroupConfig[internet]/localIntf[et1]\n"
              "/cliConfig/pathGroupConfig[internet]/localIntf[et2]\n"},
             {{"get", "/nowhere/"}, ""},
             {{"set", "/cliConfig", ""}, ""}}) {
        std::vector<std::string> arguments = {"__complete", "--"};
        arguments.insert(arguments.end(), words.begin(), words.end());
        EXPECT_EQ(run(arguments), 0);
        EXPECT_EQ(out, expected) << words.back();
    }
}

}  // namespace

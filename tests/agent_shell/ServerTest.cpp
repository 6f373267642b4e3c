// The two sockets against clients that do what clients must not do. One thread: a client's side is
// non-blocking, and whoever waits for something runs the agent's loop until it is there.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <set>

#include "agent/base/RunDir.h"
#include "agent/shell/CommandServer.h"
#include "agent/shell/ControlServer.h"
#include "tests/TempDir.h"

namespace {

using namespace std::chrono_literals;
using Agent::Json;
using Clock = std::chrono::steady_clock;

// Carries out a few requests of its own, and reports to whoever watches.
struct Handler : Agent::RequestHandler {
    explicit Handler(Loom::TaskScheduler& scheduler) : scheduler(scheduler) {}

    Agent::Answer handle(const std::string& op, const Json& request,
                         Agent::Session& session) override {
        ++requests;
        if (op == "refuse") throw Agent::RequestError("not today");
        if (op == "fail") throw std::out_of_range("somewhere \xff below");
        if (op == "warn") {
            Agent::Answer answer(1);
            answer.warnings = {"careful"};
            return answer;
        }
        if (op == "watch") {
            session.startEvents();
            watchers.insert(&session);
        }
        if (op == "watch" || op == "defer") scheduler.post(task);
        if (op == "compute") {
            Agent::Answer answer;
            answer.later = [this, how = request.at("how")] { return compute(how); };
            return answer;
        }
        if (op == "big") return Json(std::string(request.at("bytes").get<size_t>(), 'x'));
        return request.value("value", Json());
    }
    void sessionClosed(Agent::Session& session) override {
        watchers.erase(&session);
        ++closed;
    }

    // In a copy of the process.
    Json compute(const std::string& how) {
        requests = 0;
        if (how == "crash") std::abort();
        if (how == "throw") throw std::out_of_range("somewhere below");
        while (how == "hang") pause();
        const std::filesystem::directory_iterator open("/proc/self/fd");
        return {std::string(300000, 'x'), std::distance(begin(open), end(open))};
    }
    void report() {
        const auto line = std::make_shared<const std::string>(R"({"event":"later"})");
        for (Agent::Session* each : watchers) each->sendEvent(line);
    }

    Loom::TaskScheduler& scheduler;
    Loom::Task task{Loom::call<&Handler::report>(*this)};
    std::set<Agent::Session*> watchers;
    int requests = 0, closed = 0;
};

class ServerTest : public testing::Test {
  protected:
    // True as soon as `condition` is; the deadline is for a broken agent only.
    template <class Condition>
    bool await(Condition condition) {
        for (const auto deadline = Clock::now() + 20s; !condition();) {
            if (Clock::now() > deadline) return false;
            loop.runOnce(5ms);
        }
        return true;
    }

    struct Peer {
        Peer(ServerTest& test, const std::string& path) : test(test) {
            const sockaddr_un address = Agent::socketAddress(path);
            descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            EXPECT_EQ(
                connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address),
                0);
        }
        ~Peer() { hangUp(); }
        void hangUp() { close(std::exchange(descriptor, -1)); }
        // As much as the agent takes while it takes anything; true if it took all.
        bool write(std::string_view text) {
            return test.await([&] {
                const ssize_t count = send(descriptor, text.data(), text.size(), MSG_NOSIGNAL);
                if (count > 0) text.remove_prefix(static_cast<size_t>(count));
                return text.empty() || (count < 0 && errno != EAGAIN);
            }) && text.empty();
        }
        bool fill() {
            char bytes[65536];
            const ssize_t count = recv(descriptor, bytes, sizeof bytes, 0);
            if (count > 0) buffer.append(bytes, static_cast<size_t>(count));
            ended = count == 0 || (count < 0 && errno != EAGAIN);
            return count > 0;
        }
        std::string line() {
            size_t end;
            EXPECT_TRUE(test.await([&] {
                while ((end = buffer.find('\n')) == buffer.npos && fill()) continue;
                return end != buffer.npos || ended;
            }));
            if (end == buffer.npos) return "<end>";
            std::string result = buffer.substr(0, end);
            buffer.erase(0, end + 1);
            return result;
        }
        std::string all() {
            EXPECT_TRUE(test.await([&] {
                while (fill()) continue;
                return ended;
            }));
            return buffer;
        }
        std::string ask(const std::string& request) {
            EXPECT_TRUE(write(request + "\n"));
            return line();
        }

        ServerTest& test;
        int descriptor;
        std::string buffer;
        bool ended = false;
    };

    void serve(Agent::ControlServer::Limits limits = {}) {
        control.emplace(loop, path(), handler, limits);
    }
    std::string path() const { return dir.path + "/some.sock"; }

    TempDir dir;
    Loom::MonotonicClock clock;
    Loom::TaskScheduler scheduler{clock};
    Agent::EventLoop loop{scheduler};
    Handler handler{scheduler};
    std::optional<Agent::ControlServer> control;
};

std::string echo(int id) {
    return R"({"op":"echo","id":)" + std::to_string(id) + R"(,"value":[{"b":1,"a":2}]})";
}
std::string echoed(int id) {
    return R"({"id":)" + std::to_string(id) + R"(,"ok":true,"value":[{"b":1,"a":2}]})";
}

TEST_F(ServerTest, WhatIsNoRequestIsRefusedAndTheNextOneIsCarriedOut) {
    serve();
    Peer peer(*this, path());
    std::string crowded = "{\"op\":\"echo\"";
    for (int i = 0; i < Agent::maxJsonMembers; ++i) crowded += ",\"" + std::to_string(i) + "\":0";
    for (const std::string& bad : {std::string("{\"op\":\"echo\"}\0", 14), crowded + "}"})
        EXPECT_TRUE(peer.ask(bad).starts_with(R"({"ok":false,"error":")")) << bad.substr(0, 80);
    EXPECT_EQ(handler.requests, 0);
    EXPECT_EQ(peer.ask(R"({"op":"refuse","id":{"any":null}})"),
              R"({"id":{"any":null},"ok":false,"error":"not today"})");
    EXPECT_EQ(peer.ask(R"({"op":"warn"})"), R"({"ok":true,"value":1,"warnings":["careful"]})");
    EXPECT_TRUE(peer.ask(R"({"op":"fail"})").starts_with(R"({"ok":false,"error":")"));
}

TEST_F(ServerTest, AnAnswerThatTakesLongIsComputedInACopyWhileOthersAreServed) {
    serve();
    Peer slow(*this, path()), other(*this, path());
    const auto compute = [](const std::string& how) {
        return R"({"op":"compute","id":7,"how":")" + how + "\"}";
    };
    ASSERT_TRUE(slow.write(compute("hang") + "\n" + echo(1) + "\n"));
    ASSERT_TRUE(await([&] { return handler.requests == 1; }));
    EXPECT_EQ(other.ask(echo(2)), echoed(2));
    const std::string busy = other.ask(compute("crash"));
    EXPECT_EQ(busy, R"({"id":7,"ok":false,"error":"busy with another request that takes long; )"
                    R"(try again later"})");
    slow.hangUp();
    std::string answer;
    ASSERT_TRUE(await([&] { return (answer = other.ask(compute("crash"))) != busy; }));
    EXPECT_EQ(answer,
              R"({"id":7,"ok":false,"error":"the computation of the answer ended by signal 6"})");
    EXPECT_EQ(other.ask(compute("throw")), R"({"id":7,"ok":false,"error":"somewhere below"})");
    // Standard ones, that of the answer, and that of the directory.
    ASSERT_TRUE(other.write(compute("well") + "\n" + echo(3)));
    shutdown(other.descriptor, SHUT_WR);
    EXPECT_EQ(Agent::parseJson(other.line()).at("value"), Json({std::string(300000, 'x'), 5}));
    EXPECT_EQ(other.line(), echoed(3));
    EXPECT_EQ(other.line(), "<end>");
    EXPECT_GT(handler.requests, 5) << "the copies change nothing here";
    EXPECT_EQ(handler.closed, 2);
}

TEST_F(ServerTest, AClientThatDoesNotReadIsPausedAndLosesNothing) {
    serve({.answerBytes = 50000});
    Peer greedy(*this, path()), other(*this, path());
    std::string requests;
    for (int i = 0; i < 1000; ++i) {
        requests += R"({"op":"big","bytes":10000,"id":)" + std::to_string(i) + "}\n";
    }
    ASSERT_TRUE(greedy.write(requests));
    EXPECT_EQ(other.ask(echo(1)), echoed(1));
    // What the kernel holds for it, what the limit allows, and no more, however long it takes.
    for (int i = 0; i < 1000; ++i) loop.runOnce(0ms);
    EXPECT_LT(handler.requests, 200);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(Agent::parseJson(greedy.line()).at("id"), i);
}

TEST_F(ServerTest, AClientThatNeverReadsAgainIsLetGo) {
    serve({.answerBytes = 1000, .stuck = 20ms});
    Peer stuck(*this, path()), idle(*this, path());
    ASSERT_TRUE(stuck.write("{\"op\":\"big\",\"bytes\":5000000}\n"));
    EXPECT_TRUE(await([&] { return handler.closed == 1; }));
    EXPECT_EQ(idle.ask(echo(1)), echoed(1));  // idle, but nothing waits for it
}

TEST_F(ServerTest, EventsOfPendingWorkComeAfterTheFirstValueAndBeforeOtherAnswers) {
    serve();
    Peer peer(*this, path());
    EXPECT_EQ(peer.ask(R"({"op":"watch"})"), R"({"ok":true,"value":null})");
    EXPECT_EQ(peer.line(), R"({"event":"later"})");
    EXPECT_EQ(peer.ask(R"({"op":"defer"})"), R"({"event":"later"})");
    EXPECT_EQ(peer.line(), R"({"ok":true,"value":null})");
}

TEST_F(ServerTest, AWatcherThatFallsBehindIsToldAndClosed) {
    serve({.eventBytes = 0});
    Peer peer(*this, path());
    EXPECT_EQ(peer.ask(R"({"op":"watch"})"), R"({"ok":true,"value":null})");
    EXPECT_EQ(peer.line(), R"({"event":"overrun"})");
    EXPECT_EQ(peer.line(), "<end>");
}

TEST_F(ServerTest, WatchersAndIdleClientsLeaveRoomForANewOne) {
    serve({.clients = 4, .watchers = 2});
    Peer first(*this, path()), second(*this, path()), idle(*this, path());
    ASSERT_EQ(idle.ask(echo(1)), echoed(1));
    for (Peer* each : {&first, &second})
        EXPECT_EQ(each->ask(R"({"op":"watch"})"), R"({"ok":true,"value":null})");
    Peer third(*this, path());
    EXPECT_EQ(third.ask(R"({"op":"watch"})"),
              R"({"ok":false,"error":"at most 2 clients can watch at the same time"})");
    Peer fourth(*this, path());
    EXPECT_EQ(fourth.ask(echo(2)), echoed(2));
    EXPECT_EQ(idle.line(), "<end>");
    // Both other places are taken by clients that have not read their answers.
    for (Peer* each : {&third, &fourth})
        ASSERT_TRUE(each->write("{\"op\":\"big\",\"bytes\":5000000}\n") &&
                    await([&] { return each->fill(); }));
    Peer fifth(*this, path());
    EXPECT_EQ(fifth.line(), R"({"ok":false,"error":"too many clients"})");
    first.hangUp();
    ASSERT_TRUE(await([&] { return handler.closed == 2; }));
    Peer sixth(*this, path());
    EXPECT_EQ(sixth.ask(R"({"op":"watch"})"), R"({"ok":true,"value":null})");
}

TEST_F(ServerTest, ACommandIsAWordThatIsAnsweredWhole) {
    std::string big(3 << 20, 'x');
    for (size_t i = 0; i < big.size(); i += 7) big[i] = static_cast<char>('a' + i % 26);
    int shown = 0;
    auto show = [&](const std::string& word) {
        ++shown;
        return word == "BIG" ? big : "{'" + word + "': 1, }";
    };
    Agent::CommandServer server(loop, path(), show, {.clients = 4});
    struct stat status;
    ASSERT_EQ(stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);

    Peer slow(*this, path());
    ASSERT_TRUE(slow.write("NAVPA"));
    const std::string tooLong(100000, 'x');
    for (const auto& [sent, received] :
         std::initializer_list<std::array<std::string, 2>>{{"ONE\nTWO\n", "{'ONE': 1, }"},
                                                           {"THREE", "{'THREE': 1, }"},
                                                           {"BIG\r\n", big},
                                                           {"\n", ""},
                                                           {tooLong, ""}}) {
        Peer peer(*this, path());
        peer.write(sent);
        shutdown(peer.descriptor, SHUT_WR);
        EXPECT_EQ(peer.all(), received) << sent.substr(0, 10);
    }
    Peer gone(*this, path()), deaf(*this, path());
    ASSERT_TRUE(gone.write("BIG\n") && deaf.write("BIG\n"));
    gone.hangUp();
    ASSERT_TRUE(await([&] { return shown == 5; }));
    ASSERT_TRUE(slow.write("THS\n"));
    EXPECT_EQ(slow.all(), "{'NAVPATHS': 1, }");
    EXPECT_EQ(deaf.all(), big);
}

TEST_F(ServerTest, CommandClientsThatStopMakeRoomAndAreClosedInTime) {
    auto show = [](const std::string& word) {
        return std::string(word == "BIG" ? 3 << 20 : 4, 'x');
    };
    Agent::CommandServer server(loop, path(), show, {.clients = 3, .silence = 50ms});
    Peer first(*this, path()), deaf(*this, path()), third(*this, path()), fourth(*this, path());
    ASSERT_TRUE(deaf.write("BIG\n"));
    ASSERT_TRUE(fourth.write("WORD\n"));
    EXPECT_EQ(fourth.all(), "xxxx");
    EXPECT_EQ(first.all(), "");
    EXPECT_EQ(third.all(), "");
    EXPECT_TRUE(await([&] { return send(deaf.descriptor, "", 1, MSG_NOSIGNAL) < 0; }));
    EXPECT_LT(deaf.all().size(), size_t{3} << 20);
}

}  // namespace

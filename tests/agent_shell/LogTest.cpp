// The log towards a reader that reads late, and towards the journal.
#include "agent/shell/Log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>

#include "agent/shell/AgentTrace.h"

namespace {

struct LogTest : testing::Test {
    ~LogTest() override {
        for (const int end : ends) close(end);
    }
    std::string received() {
        char bytes[65536];
        std::string text;
        for (ssize_t count; (count = read(ends[0], bytes, sizeof bytes)) > 0;)
            text.append(bytes, static_cast<size_t>(count));
        return text;
    }

    int ends[2] = {-1, -1};
    Loom::MonotonicClock clock;
    Loom::TaskScheduler scheduler{clock};
    Agent::EventLoop loop{scheduler};
};

TEST_F(LogTest, ALineNeverWaitsForItsReaderAndWhatIsDroppedIsReported) {
    ASSERT_EQ(pipe(ends), 0);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    Agent::Log log(ends[1]);
    const Agent::LogInLoop inLoop(log, loop);
    EXPECT_EQ(fcntl(ends[1], F_GETFL) & O_NONBLOCK, 0) << "others write there, too";
    const std::string line(1000, 'x');
    size_t written = 0;
    for (; written < 1000; ++written) log.write(5, line);
    std::string text;
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
         text.find("dropped") == text.npos && std::chrono::steady_clock::now() < end;) {
        loop.runOnce(std::chrono::milliseconds(5));
        text += received();
    }
    size_t whole = 0, at = 0;
    for (; text.compare(at, line.size() + 1, line + "\n") == 0; ++whole) at += line.size() + 1;
    EXPECT_GT(whole, 200u);
    EXPECT_EQ(text.substr(at),
              std::to_string(written - whole) +
                  " lines of the log were dropped because the reader did not keep up\n");
    close(std::exchange(ends[0], -1));
    log.write(5, "to nobody");
    loop.runOnce(std::chrono::milliseconds(0));
}

TEST_F(LogTest, TheJournalIsToldPrioritiesAndOperatorsNoSourceLines) {
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    struct stat status {};
    fstat(ends[1], &status);
    const std::string journal = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    setenv("JOURNAL_STREAM", journal.c_str(), 1);
    Duolog::levelIs("agent", 8);
    {
        Agent::Log log(ends[1]);
        DUOLOG(Agent::agentTrace, 4, "careful");
        DUOLOG(Agent::agentTrace, 8, "detail");
    }
    Duolog::levelIs("agent", 5);
    unsetenv("JOURNAL_STREAM");
    const std::string text = received(), time = R"(\d{4}-\d\d-\d\dT[0-9:.]+[+-]\d\d:\d\d)";
    EXPECT_TRUE(
        std::regex_match(text, std::regex("<4>" + time + " agent:4 careful\n<7>" + time +
                                          " agent:8 TestBody: detail \\(LogTest.cpp:\\d+\\)\n")))
        << text;
}

}  // namespace

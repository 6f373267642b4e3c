// The log towards a reader that reads late. (Towards the journal: service_test.py.)
#include "agent/shell/Log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

TEST(LogTest, ALineNeverWaitsForItsReaderAndWhatIsDroppedIsReported) {
    Loom::MonotonicClock clock;
    Loom::TaskScheduler scheduler{clock};
    Agent::EventLoop loop{scheduler};
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    Agent::Log log(ends[1]);
    const Agent::LogInLoop inLoop(log, loop);
    EXPECT_EQ(fcntl(ends[1], F_GETFL) & O_NONBLOCK, 0) << "others write there, too";
    const std::string line(1000, 'x');
    size_t written = 0;
    for (; written < 1000; ++written) log.write(5, line);
    std::string text;
    for (const auto end = clock.now() + 20s;
         text.find("dropped") == text.npos && clock.now() < end;) {
        loop.runOnce(5ms);
        char bytes[65536];
        for (ssize_t count; (count = read(ends[0], bytes, sizeof bytes)) > 0;)
            text.append(bytes, static_cast<size_t>(count));
    }
    size_t whole = 0, at = 0;
    for (; text.compare(at, line.size() + 1, line + "\n") == 0; ++whole) at += line.size() + 1;
    EXPECT_GT(whole, 200u);
    EXPECT_EQ(text.substr(at),
              std::to_string(written - whole) +
                  " lines of the log were dropped because the reader did not keep up\n");
    close(ends[0]);
    log.write(5, "to nobody");
    loop.runOnce(0ms);
    close(ends[1]);
}

}  // namespace

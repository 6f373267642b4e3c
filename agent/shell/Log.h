// The log: the trace records that pass the level of their facility, as lines on standard error. The
// only writer there while it exists; made by main, one to a process, on the event thread.
//
// A line never waits for its reader. What the reader does not take at once is kept, up to
// maxPending bytes, and written as the reader takes it; lines beyond that are dropped and counted,
// and the log says how many as soon as it is read again.
//
// Lines up to level 6 are meant for operators: time, facility, level, text. Deeper ones also name
// the function, file and line that traced. Levels are the priorities of syslog (RFC 5424), so where
// standard error is the journal's, each line begins with its priority (sd-daemon(3)).
#pragma once

#include <string>
#include <string_view>

#include "agent/shell/EventLoop.h"
#include "platform/trace/Ringlog.h"

namespace Agent {

class Log {
  public:
    static constexpr size_t maxPending = 256 * 1024;

    // Takes trace records from now on; the descriptor must outlive this.
    explicit Log(int descriptor);
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    // The loop that waits for the reader; null before it is destroyed. Without one, what is kept is
    // written with the next line.
    void loopIs(EventLoop* loop);

    // A line that is not traced, such as a reason to stop.
    void write(int level, std::string_view text);

  private:
    void record(const Ringlog::Line& line);
    void flush();
    bool writeSome();

    int descriptor_;
    bool owned_ = false;      // opened anew, not to block
    bool isSocket_ = false;   // of the journal, mostly
    bool toJournal_ = false;  // which reads priorities
    std::string pending_;     // whole lines, but for the part of the first that has been written
    size_t dropped_ = 0;      // lines, not reported yet
    EventLoop* loop_ = nullptr;
    EventLoop::Registration writable_;  // set while the reader is awaited
};

// The loop of a log, for as long as this exists.
class LogInLoop {
  public:
    LogInLoop(Log& log, EventLoop& loop) : log_(log) { log.loopIs(&loop); }
    ~LogInLoop() { log_.loopIs(nullptr); }
    LogInLoop(const LogInLoop&) = delete;
    LogInLoop& operator=(const LogInLoop&) = delete;

  private:
    Log& log_;
};

}  // namespace Agent

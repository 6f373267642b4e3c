// The log: the trace records that pass the level of their facility, as lines on standard error.
// While it exists it is the only writer there. Created by main, one per process, on the event
// thread.
//
// A line never waits for its reader. What the reader does not take at once is kept, up to
// maxPending bytes, and written as the reader reads; lines beyond that are dropped and counted, and
// the log reports the number as soon as it is read again.
//
// Lines up to level 6 are meant for operators: time, facility, level, text. Lines of higher levels
// also name the function, file and line of the trace. Levels are the priorities of syslog (RFC
// 5424), so if standard error belongs to the journal, each line begins with its priority
// (sd-daemon(3)).
#pragma once

#include <string>
#include <string_view>

#include "agent/shell/EventLoop.h"
#include "platform/trace/Ringlog.h"

namespace Agent {

class Log {
  public:
    static constexpr size_t maxPending = 256 * 1024;

    // Receives trace records from now on; the descriptor must outlive this.
    explicit Log(int descriptor);
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    // Sets the loop that waits for the reader; null before the loop is destroyed. Without a loop,
    // pending lines are written with the next line.
    void loopIs(EventLoop* loop);

    // The number of lines dropped so far.
    uint64_t dropped() const { return allDropped_; }

    // Writes a line that is not traced, such as the reason to stop.
    void write(int level, std::string_view text);

  private:
    void record(const Ringlog::Line& line);
    void drop(size_t lines) {
        dropped_ += lines;
        allDropped_ += lines;
    }
    void flush();
    bool writeSome();

    int descriptor_;
    bool owned_ = false;      // opened again for non-blocking writes
    bool isSocket_ = false;   // usually the journal's
    bool toJournal_ = false;  // lines begin with a priority
    std::string pending_;     // whole lines, less the written part of the first
    size_t dropped_ = 0;      // number of dropped lines not reported yet
    uint64_t allDropped_ = 0;
    EventLoop* loop_ = nullptr;
    EventLoop::Registration writable_;  // set while waiting for the reader
};

// Sets the loop of a log while this exists.
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

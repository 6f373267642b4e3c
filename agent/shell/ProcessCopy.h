// Computes a text in a copy of this process (fork(2)), for what takes longer than the event thread
// can spare: making the copy takes a millisecond or two, whatever is computed. The copy works on
// the state of that moment, and whatever it changes in memory is its own.
//
// The copy has the thread that makes it and no other, no descriptors but the standard ones, no log
// and no signal handlers. It may open sockets of its own; to use one of the agent's fails. It ends
// with the process.
//
// Used on the event thread.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

#include "agent/shell/EventLoop.h"

namespace Agent {

class ProcessCopy {
  public:
    // The processor may be busy with the agent, so this is far above what any computation takes.
    static constexpr unsigned limit = 60;  // seconds, then the copy ends

    // `text` is what `work` returned; if `error` is not empty, the copy ended before that.
    struct Result {
        std::string text;
        std::string error;
    };

    // `work` must not throw. `done` may destroy this. Throws std::system_error if no process can be
    // made.
    ProcessCopy(EventLoop& loop, const std::function<std::string()>& work,
                std::function<void(Result)> done);
    // Kills the copy if it has not ended, and waits for its end.
    ~ProcessCopy();
    ProcessCopy(const ProcessCopy&) = delete;
    ProcessCopy& operator=(const ProcessCopy&) = delete;

    // `done` is called all the same, soon.
    void kill();

  private:
    void readable();

    std::function<void(Result)> done_;
    pid_t process_ = -1;   // -1 once it has been waited for
    int descriptor_ = -1;  // the reading end of the pipe for the text
    std::string text_;
    EventLoop::Registration readable_;
};

}  // namespace Agent

// A listening Unix socket for the owner of the run directory, and for the directory's group if that
// may enter it: created with mode 0600, or 0660 and the group, after removing a stale one of a
// crashed agent; removed on destruction.
#pragma once

#include <event2/listener.h>

#include <functional>
#include <memory>
#include <string>

#include "agent/shell/EventLoop.h"

namespace Agent {

// The socket that a Listener listens on, before listen(). Throws RunDirError.
int listeningSocket(const std::string& path);

class Listener {
  public:
    // The callback owns the descriptor passed to it: connected, non-blocking, closed on exec.
    using Accepted = std::function<void(int descriptor)>;

    // Throws RunDirError if the socket cannot be created.
    Listener(EventLoop& loop, std::string path, Accepted accepted);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

  private:
    void pause();

    EventLoop& loop_;
    std::string path_;
    Accepted accepted_;
    std::unique_ptr<evconnlistener, void (*)(evconnlistener*)> listener_;
    EventLoop::Registration resume_;
};

}  // namespace Agent

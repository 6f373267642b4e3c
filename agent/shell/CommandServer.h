// command.sock, the road of the show commands: a client writes one word and a newline, and reads
// the answer until end of file. The answer is written by somebody else, straight to the descriptor;
// this reads the word, calls that somebody, and closes.
//
// A client can cost no more than its own connection: the word is bounded in length and in time, the
// descriptor is non-blocking, and when there are too many clients, the one that has kept quiet for
// longest goes. Owned by HostAgent; runs on the event thread.
#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <string>

#include "agent/shell/EventLoop.h"
#include "agent/shell/Listener.h"

namespace Agent {

class CommandServer {
  public:
    // Called once for each word, which comes without its newline; the descriptor is valid until the
    // call returns. What does not fit the socket's send buffer is lost, so whoever writes much
    // raises that first (SO_SNDBUFFORCE) and writes in large pieces.
    using Answer = std::function<void(int descriptor, const std::string& word)>;

    struct Limits {
        size_t wordBytes = 256;
        size_t clients = 32;
        std::chrono::milliseconds silence{5000};
    };

    CommandServer(EventLoop& loop, std::string path, Answer answer)
        : CommandServer(loop, std::move(path), std::move(answer), Limits{}) {}
    CommandServer(EventLoop& loop, std::string path, Answer answer, Limits limits);
    ~CommandServer();

  private:
    struct Client;

    void accepted(int descriptor);
    void readable(std::list<Client>::iterator client);

    EventLoop& loop_;
    Answer answer_;
    Limits limits_;
    std::list<Client> clients_;  // oldest first
    Listener listener_;
};

}  // namespace Agent

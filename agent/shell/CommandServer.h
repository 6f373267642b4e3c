// command.sock, the road of the show commands: a client writes one word and a newline, and reads
// the answer until end of file.
//
// A client can cost no more than its own connection: the word is bounded in length and in time, an
// answer waits in memory for as long as the client takes some of it now and then, and when there
// are too many clients, the oldest is closed. Owned by HostAgent; runs on the event thread.
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
    // The whole text to send for a word, which is passed without its newline; empty for none.
    using Show = std::function<std::string(const std::string& word)>;

    struct Limits {
        size_t wordBytes = 256;
        size_t clients = 32;
        // A client is closed that has not sent its word, or has taken nothing, for this long.
        std::chrono::milliseconds silence{5000};
    };

    CommandServer(EventLoop& loop, std::string path, Show show)
        : CommandServer(loop, std::move(path), std::move(show), Limits{}) {}
    CommandServer(EventLoop& loop, std::string path, Show show, Limits limits);
    ~CommandServer();

  private:
    class Client;

    void accepted(int descriptor);
    void close(const Client& client);

    EventLoop& loop_;
    Show show_;
    Limits limits_;
    std::list<Client> clients_;  // oldest first
    Listener listener_;
};

}  // namespace Agent

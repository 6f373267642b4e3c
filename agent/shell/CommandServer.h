// command.sock, the socket of the show commands: a client writes one word and a newline, and reads
// the answer until end of file.
//
// A misbehaving client costs only its own connection: the word is bounded in length and in time, an
// answer stays in memory only while the client keeps reading, and if there are too many clients the
// oldest is closed. Owned by HostAgent; runs on the event thread.
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
    // The complete answer to a word, which is passed without its newline; empty for no answer.
    using Show = std::function<std::string(const std::string& word)>;

    struct Limits {
        size_t wordBytes = 256;
        size_t clients = 32;
        // A client is closed if it has not sent its word, or has read nothing, for this long.
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

// control.sock: requests and answers as JSON, one object a line in both directions. This class
// frames them, keeps every client within its limits, and passes the requests to the agent's handler
// one at a time. Owned by HostAgent; runs on the event thread.
//
// Invariants:
// - The requests of one client are answered in their order; answers and events share its stream in
//   the order in which they happened. While an answer is computed the client's next request waits.
// - When an answer is written, everything that the request caused has run.
// - No client delays another for long: requests are handled in small batches, and nothing blocks.
// - The memory of a client is bounded: an unfinished line by Limits::lineBytes; unread answers by
//   pausing the client above Limits::answerBytes; unread events by Limits::eventBytes, beyond which
//   it is sent {"event":"overrun"} and closed.
// - A new client is always admitted: at most Limits::watchers keep their place while idle, and if
//   all places are taken, the client that has been idle longest is closed.
#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/base/Json.h"
#include "agent/model/Watch.h"
#include "agent/shell/EventLoop.h"
#include "agent/shell/Listener.h"
#include "agent/shell/ProcessCopy.h"

namespace Agent {

// Refuses a request: the message becomes the "error" of the answer.
class RequestError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The answer to a request that was executed.
struct Answer {
    Answer(Json value = nullptr) : value(std::move(value)) {}

    Json value;
    std::vector<std::string> warnings;  // omitted if empty
    // If set, computes the value: in a copy of the process, while the agent goes on. See
    // ProcessCopy.
    std::function<Json()> later{};
};

// The client of a request. Events can be sent to it until sessionClosed(); they are dropped after
// an overrun.
class Session : public Watcher {
  public:
    // Called before the first event: keeps the client's place while it is idle. Throws RequestError
    // if Limits::watchers clients do so already.
    virtual void startEvents() = 0;
    // Who it is, by the kernel: "uid 0, pid 4711".
    virtual std::string author() const { return "a client"; }
    // Whether it may change anything and read secrets; others who can connect may read the rest.
    virtual bool mayChange() const { return true; }

  protected:
    ~Session() = default;
};

class RequestHandler {
  public:
    virtual ~RequestHandler() = default;
    // Executes one request. An exception refuses it; a refused request must have changed nothing.
    // `request` is an object; `op` is its member of that name.
    virtual Answer handle(const std::string& op, const Json& request, Session& session) = 0;
    // Called before the session is destroyed.
    virtual void sessionClosed(Session& session) = 0;
};

class ControlServer {
  public:
    struct Limits {
        size_t lineBytes = (2 << 20) + (1 << 12);  // two configuration files and their request
        size_t answerBytes = 1 << 20;
        size_t eventBytes = 4 << 20;
        size_t clients = 128;
        size_t watchers = 96;
        size_t computations = 1;                 // of answers, at the same time
        std::chrono::milliseconds stuck{30000};  // closes a client that reads nothing for so long
    };

    ControlServer(EventLoop& loop, std::string path, RequestHandler& handler)
        : ControlServer(loop, std::move(path), handler, Limits{}) {}
    ControlServer(EventLoop& loop, std::string path, RequestHandler& handler, Limits limits);
    ~ControlServer();

  private:
    class Client;
    // An answer that is being computed.
    struct Computation {
        Client* client;  // null: it has gone
        Json reply;      // without the answer
        std::optional<ProcessCopy> copy;
    };

    void accepted(int descriptor);
    bool makeRoom();
    void used(const Client& client);
    void close(Client& client);
    std::optional<std::string> answer(const std::string& line, Client& client);
    void compute(Answer answer, const Json& reply, Client& client);
    void computed(Computation& computation, ProcessCopy::Result result);

    EventLoop& loop_;
    RequestHandler& handler_;
    Limits limits_;
    std::list<std::unique_ptr<Client>> clients_;  // ordered by idle time, longest first
    size_t watchers_ = 0;
    std::list<Computation> computations_;
    Listener listener_;
};

}  // namespace Agent

// control.sock: requests and answers as JSON, one object a line in both directions. This frames
// them, keeps every client within its bounds, and hands the requests to the agent's handler one at
// a time. Owned by HostAgent; runs on the event thread.
//
// What always holds:
// - Requests of one client are answered in their order; answers and events share its stream in the
//   order in which they happened.
// - When an answer is written, everything that the request set off has run.
// - No client delays another for long: requests are taken in small batches, nothing blocks.
// - What a client makes the agent hold is bounded: an unfinished line by Limits::lineBytes, unread
//   answers by pausing it above Limits::answerBytes, unread events by Limits::eventBytes, beyond
//   which it is told {"event":"overrun"} and let go.
#pragma once

#include <chrono>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/base/Json.h"
#include "agent/shell/EventLoop.h"
#include "agent/shell/Listener.h"

namespace Agent {

// A request that is refused: the message becomes the answer's "error".
class RequestError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// What is sent back to a request that was carried out.
struct Answer {
    Answer(Json value = nullptr) : value(std::move(value)) {}

    Json value;
    std::vector<std::string> warnings;  // a member of the answer if there are any
};

// The client of a request, to which events can be sent for as long as it is there.
class Session {
  public:
    // Takes effect at once and calls nobody back. What is sent to a session that fell behind is
    // dropped.
    virtual void sendEvent(const Json& event) = 0;

  protected:
    ~Session() = default;
};

class RequestHandler {
  public:
    virtual ~RequestHandler() = default;
    // Carries out one request. Any exception refuses it, RequestError for one; a refused request
    // must have changed nothing. `request` is an object; `op` is its member of that name.
    virtual Answer handle(const std::string& op, const Json& request, Session& session) = 0;
    // The session goes; it must not be used any more.
    virtual void sessionClosed(Session& session) = 0;
};

class ControlServer {
  public:
    struct Limits {
        size_t lineBytes = 1 << 20;
        size_t answerBytes = 1 << 20;
        size_t eventBytes = 4 << 20;
        size_t clients = 64;
        std::chrono::milliseconds stuck{30000};  // a client that takes nothing for so long goes
    };

    ControlServer(EventLoop& loop, std::string path, RequestHandler& handler)
        : ControlServer(loop, std::move(path), handler, Limits{}) {}
    ControlServer(EventLoop& loop, std::string path, RequestHandler& handler, Limits limits);
    ~ControlServer();

  private:
    class Client;

    void accepted(int descriptor);
    void close(Client& client);
    std::string answer(const std::string& line, Client& client);

    EventLoop& loop_;
    RequestHandler& handler_;
    Limits limits_;
    std::list<std::unique_ptr<Client>> clients_;
    Listener listener_;
};

}  // namespace Agent

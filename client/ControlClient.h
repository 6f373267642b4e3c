// The client side of the agent's two sockets. Blocking: navctl performs one operation at a time.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include "agent/base/Json.h"

namespace Client {

using Agent::Json;

// No agent answers in the run directory, or it closed the connection.
class NoAgent : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The user may not connect to the sockets of the run directory.
class NoPermission : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The agent refused a request; what() is its reason.
class Refused : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// A connected socket of the run directory, read by lines or to its end.
class Connection {
  public:
    // Throws NoAgent or NoPermission.
    Connection(const std::string& runDir, const char* socketName);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // The time after which a read or write fails with NoAgent; 0, the default: never.
    void patienceIs(int seconds);
    void sendLine(const std::string& line);
    // The next line without its newline; empty at the end of the stream. Throws NoAgent.
    std::optional<std::string> readLine();
    // Whether the next line has been received whole.
    bool hasLine() const { return buffer_.find('\n') != buffer_.npos; }
    int descriptor() const { return descriptor_; }
    // The rest of the stream. Throws NoAgent.
    std::string readAll();

  private:
    bool fill();

    int descriptor_;
    std::string buffer_;
    size_t searched_ = 0;  // the buffer has no newline before this position
};

// Requests over control.sock, one at a time.
class ControlClient {
  public:
    explicit ControlClient(const std::string& runDir);

    // The whole answer to a request. Throws Refused if it is not ok, NoAgent if there is no answer.
    Json request(const Json& request);
    // The value at a path of the tree.
    Json get(const std::string& path);
    Connection& connection() { return connection_; }

  private:
    Connection connection_;
};

// The agent's answer to a word on command.sock, unchanged.
std::string showText(const std::string& runDir, const std::string& word);

}  // namespace Client

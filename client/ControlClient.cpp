#include "client/ControlClient.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "agent/base/RunDir.h"

namespace Client {

namespace {

constexpr int answerSeconds = 30;

[[noreturn]] void gone() {
    throw NoAgent("the agent closed the connection");
}

}  // namespace

Connection::Connection(const std::string& runDir, const char* socketName) {
    const std::string path = runDir + "/" + socketName;
    const sockaddr_un address = Agent::socketAddress(path);
    descriptor_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (descriptor_ < 0 ||
        connect(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int reason = errno;
        if (descriptor_ >= 0) close(descriptor_);
        if (reason == EACCES || reason == EPERM) throw NoPermission("permission denied: " + path);
        throw NoAgent("no agent at " + path + ": " + std::strerror(reason));
    }
}

Connection::~Connection() {
    close(descriptor_);
}

void Connection::patienceIs(int seconds) {
    const timeval time{seconds, 0};
    setsockopt(descriptor_, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
    setsockopt(descriptor_, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

void Connection::sendLine(const std::string& line) {
    const std::string text = line + "\n";
    for (size_t sent = 0; sent < text.size();) {
        const ssize_t count =
            send(descriptor_, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (count > 0) sent += static_cast<size_t>(count);
        // Before it closes a connection, the agent writes the reason, which can still be read.
        if (count < 0 && (errno == EPIPE || errno == ECONNRESET)) return;
        if (count < 0 && errno != EINTR) throw NoAgent(std::strerror(errno));
    }
}

bool Connection::fill() {
    std::array<char, 65536> bytes;
    for (;;) {
        const ssize_t count = recv(descriptor_, bytes.data(), bytes.size(), 0);
        if (count > 0) buffer_.append(bytes.data(), static_cast<size_t>(count));
        if (count >= 0) return count > 0;
        if (errno == ECONNRESET) return false;
        if (errno == EAGAIN) throw NoAgent("the agent does not answer");
        if (errno != EINTR) throw NoAgent(std::strerror(errno));
    }
}

std::optional<std::string> Connection::readLine() {
    for (;;) {
        if (const size_t end = buffer_.find('\n', searched_); end != buffer_.npos) {
            std::string line = buffer_.substr(0, end);
            buffer_.erase(0, end + 1);
            searched_ = 0;
            return line;
        }
        searched_ = buffer_.size();
        if (!fill()) return {};
    }
}

std::string Connection::readAll() {
    while (fill()) {
    }
    return std::move(buffer_);
}

ControlClient::ControlClient(const std::string& runDir)
    : connection_(runDir, Agent::controlSocketName) {
    connection_.patienceIs(answerSeconds);
}

Json ControlClient::request(const Json& request) {
    connection_.sendLine(Agent::dumpLine(request));
    const auto line = connection_.readLine();
    if (!line) gone();
    try {
        Json answer = Agent::parseJson(*line);
        if (answer.at("ok").get<bool>()) return answer;
        throw Refused(answer.at("error").get<std::string>());
    } catch (const Json::exception&) {
        throw NoAgent("not the answer of an agent: " + line->substr(0, 200));
    } catch (const Agent::JsonError&) {
        throw NoAgent("not the answer of an agent: " + line->substr(0, 200));
    }
}

Json ControlClient::get(const std::string& path) {
    return request({{"op", "get"}, {"path", path}}).value("value", Json());
}

std::string showText(const std::string& runDir, const std::string& word) {
    Connection connection(runDir, Agent::commandSocketName);
    connection.patienceIs(answerSeconds);
    connection.sendLine(word);
    return connection.readAll();
}

}  // namespace Client

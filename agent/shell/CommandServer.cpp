#include "agent/shell/CommandServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace Agent {

struct CommandServer::Client {
    explicit Client(int descriptor) : descriptor(descriptor) {}
    ~Client() {
        input = {};  // nobody watches a closed descriptor, whose number may come back at once
        close(descriptor);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    int descriptor;
    std::string word;
    EventLoop::Watch input, deadline;
};

CommandServer::CommandServer(EventLoop& loop, std::string path, Answer answer, Limits limits)
    : loop_(loop),
      answer_(std::move(answer)),
      limits_(limits),
      listener_(loop, std::move(path), [this](int descriptor) { accepted(descriptor); }) {}

CommandServer::~CommandServer() = default;

void CommandServer::accepted(int descriptor) {
    if (clients_.size() == limits_.clients) clients_.pop_front();
    const auto client = clients_.emplace(clients_.end(), descriptor);
    client->input = loop_.onReadable(descriptor, [this, client] { readable(client); });
    client->deadline = loop_.onTimer(limits_.silence, [this, client] { clients_.erase(client); });
}

void CommandServer::readable(std::list<Client>::iterator client) {
    std::array<char, 512> bytes;
    const ssize_t count = recv(client->descriptor, bytes.data(), bytes.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    std::string& word = client->word;
    if (count > 0) word.append(bytes.data(), static_cast<size_t>(count));

    // A client that wrote its word and closed its half has said all it wants to say.
    const size_t end = count > 0 ? word.find('\n') : word.size();
    if (end == word.npos && word.size() <= limits_.wordBytes) return;
    if (count >= 0 && end != 0 && end <= limits_.wordBytes) {
        word.resize(end);
        if (word.back() == '\r') word.pop_back();
        answer_(client->descriptor, word);
    }
    clients_.erase(client);
}

}  // namespace Agent

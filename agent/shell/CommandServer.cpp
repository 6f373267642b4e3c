#include "agent/shell/CommandServer.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>

#include <algorithm>
#include <new>

namespace Agent {

// One connection. The last call of each of its callbacks may destroy it.
class CommandServer::Client {
  public:
    Client(CommandServer& server, int descriptor);

  private:
    void readable(bool atEnd);
    void answer(const std::string& word);

    CommandServer& server_;
    std::unique_ptr<bufferevent, void (*)(bufferevent*)> stream_;
    EventLoop::Registration deadline_;  // for the arrival of the word
    bool answered_ = false;             // the rest of the answer is being sent
};

CommandServer::Client::Client(CommandServer& server, int descriptor)
    : server_(server),
      stream_(bufferevent_socket_new(server.loop_.base(), descriptor, BEV_OPT_CLOSE_ON_FREE),
              bufferevent_free),
      deadline_(server.loop_.onTimer(server.limits_.silence, [this] { server_.close(*this); })) {
    if (!stream_) throw std::bad_alloc();
    auto readable = [](bufferevent*, void* self) noexcept {
        static_cast<Client*>(self)->readable(false);
    };
    auto written = [](bufferevent*, void* self) noexcept {
        auto& client = *static_cast<Client*>(self);
        if (client.answered_) client.server_.close(client);
    };
    auto happened = [](bufferevent*, short what, void* self) noexcept {
        auto& client = *static_cast<Client*>(self);
        if ((what & BEV_EVENT_EOF) == 0) return client.server_.close(client);
        client.readable(true);
    };
    bufferevent_setcb(stream_.get(), readable, written, happened, this);
    bufferevent_enable(stream_.get(), EV_READ | EV_WRITE);
}

void CommandServer::Client::readable(bool atEnd) {
    evbuffer* const input = bufferevent_get_input(stream_.get());
    const size_t held = evbuffer_get_length(input);
    if (answered_) return void(evbuffer_drain(input, held));
    const evbuffer_ptr newline = evbuffer_search_eol(input, nullptr, nullptr, EVBUFFER_EOL_CRLF);
    if (newline.pos < 0 && held <= server_.limits_.wordBytes && !atEnd) return;
    // A client may close its sending side instead of writing a newline.
    std::string word(newline.pos < 0 ? held : static_cast<size_t>(newline.pos), '\0');
    evbuffer_remove(input, word.data(), word.size());
    evbuffer_drain(input, evbuffer_get_length(input));
    if (word.empty() || word.size() > server_.limits_.wordBytes) return server_.close(*this);
    answer(word);
}

void CommandServer::Client::answer(const std::string& word) {
    answered_ = true;
    deadline_ = {};
    const std::string text = server_.show_(word);
    if (text.empty()) return server_.close(*this);
    const timeval stuck = toTimeval(server_.limits_.silence);
    bufferevent_set_timeouts(stream_.get(), nullptr, &stuck);
    bufferevent_write(stream_.get(), text.data(), text.size());
}

CommandServer::CommandServer(EventLoop& loop, std::string path, Show show, Limits limits)
    : loop_(loop),
      show_(std::move(show)),
      limits_(limits),
      listener_(loop, std::move(path), [this](int descriptor) { accepted(descriptor); }) {}

CommandServer::~CommandServer() = default;

void CommandServer::accepted(int descriptor) {
    if (clients_.size() == limits_.clients) clients_.pop_front();
    clients_.emplace_back(*this, descriptor);
}

void CommandServer::close(const Client& client) {
    clients_.remove_if([&](const Client& each) { return &each == &client; });
}

}  // namespace Agent

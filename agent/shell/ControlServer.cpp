#include "agent/shell/ControlServer.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <optional>

namespace Agent {

namespace {

// Requests of one client that are handled before the other clients get their turn.
constexpr int batch = 32;

std::string refusal(const std::string& reason) {
    return dumpLine({{"ok", false}, {"error", reason}});
}

// The line of an answer, or of the reason for which it cannot be made. `reply` has the request's
// id.
template <class Make>
std::string lineOf(Json& reply, Make make) {
    try {
        Answer answer = make();
        reply["ok"] = true;
        reply["value"] = std::move(answer.value);
        if (!answer.warnings.empty()) reply["warnings"] = std::move(answer.warnings);
    } catch (const std::exception& error) {
        reply["ok"] = false;
        reply["error"] = error.what();
    }
    return dumpLine(reply);
}

}  // namespace

// One connection. Each of its callbacks ends in advance(), the only place where it may be
// destroyed.
class ControlServer::Client final : public Session {
  public:
    Client(ControlServer& server, int descriptor);

    void sendEvent(const Line& line) override;
    void startEvents() override;
    std::string author() const override;
    bool mayChange() const override { return peer_.uid == 0 || peer_.uid == geteuid(); }
    void send(const std::string& line);
    bool watches() const { return watches_; }
    bool idle() { return !watches_ && !waits_ && evbuffer_get_length(output()) == 0; }
    void computationStarted() { waits_ = true; }
    void computed(const std::string& line);

  private:
    evbuffer* input() { return bufferevent_get_input(stream_.get()); }
    evbuffer* output() { return bufferevent_get_output(stream_.get()); }
    bool congested() { return evbuffer_get_length(output()) > server_.limits_.answerBytes; }
    std::optional<std::string> takeLine();
    void answerSome();
    void advance();
    bool hungUp();
    void happened(short what);

    ControlServer& server_;
    std::unique_ptr<bufferevent, void (*)(bufferevent*)> stream_;
    EventLoop::Registration again_;
    // As it was when the client connected; nobody's if the kernel does not tell.
    ucred peer_{0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
    bool watches_ = false;
    bool waits_ = false;    // for an answer that is being computed
    bool atEnd_ = false;    // the client sends no more; its requests are still answered
    bool closing_ = false;  // no more requests or events; the output is still sent
};

ControlServer::Client::Client(ControlServer& server, int descriptor)
    : server_(server),
      stream_(bufferevent_socket_new(server.loop_.base(), descriptor, BEV_OPT_CLOSE_ON_FREE),
              bufferevent_free) {
    if (!stream_) throw std::bad_alloc();
    socklen_t size = sizeof peer_;
    getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer_, &size);
    auto moved = [](bufferevent*, void* self) noexcept { static_cast<Client*>(self)->advance(); };
    auto happened = [](bufferevent*, short what, void* self) noexcept {
        static_cast<Client*>(self)->happened(what);
    };
    const Limits& limits = server.limits_;
    const timeval stuck = toTimeval(limits.stuck);
    bufferevent_setcb(stream_.get(), moved, moved, happened, this);
    bufferevent_set_timeouts(stream_.get(), nullptr, &stuck);
    bufferevent_setwatermark(stream_.get(), EV_READ, 0, limits.lineBytes + 1);
    bufferevent_setwatermark(stream_.get(), EV_WRITE, limits.answerBytes / 2, 0);
    bufferevent_enable(stream_.get(), EV_READ | EV_WRITE);
}

void ControlServer::Client::send(const std::string& line) {
    evbuffer_add(output(), line.data(), line.size());
    evbuffer_add(output(), "\n", 1);
}

void ControlServer::Client::startEvents() {
    if (watches_) return;
    if (server_.watchers_ == server_.limits_.watchers)
        throw RequestError("at most " + std::to_string(server_.watchers_) +
                           " clients can watch at the same time");
    ++server_.watchers_;
    watches_ = true;
}

std::string ControlServer::Client::author() const {
    return "uid " + std::to_string(peer_.uid) + ", pid " + std::to_string(peer_.pid);
}

void ControlServer::Client::sendEvent(const Line& line) {
    if (closing_) return;
    if (evbuffer_get_length(output()) + line->size() <= server_.limits_.eventBytes) {
        send(*line);
    } else {
        closing_ = true;
        send(R"({"event":"overrun"})");
    }
}

// The next whole line; at the end of the stream also one without a newline.
std::optional<std::string> ControlServer::Client::takeLine() {
    const evbuffer_ptr newline = evbuffer_search_eol(input(), nullptr, nullptr, EVBUFFER_EOL_LF);
    const size_t held = evbuffer_get_length(input());
    if (newline.pos < 0 && (!atEnd_ || held == 0)) return {};
    std::string line(newline.pos < 0 ? held : static_cast<size_t>(newline.pos), '\0');
    evbuffer_remove(input(), line.data(), line.size());
    evbuffer_drain(input(), 1);
    return line;
}

void ControlServer::Client::answerSome() {
    for (int count = 0; count < batch && !closing_ && !waits_ && !congested(); ++count) {
        const auto line = takeLine();
        if (!line) {
            closing_ = atEnd_;
            if (evbuffer_get_length(input()) <= server_.limits_.lineBytes) return;
            send(refusal("a request has at most " + std::to_string(server_.limits_.lineBytes) +
                         " bytes"));
            closing_ = true;
            return;
        }
        server_.used(*this);
        const auto answer = server_.answer(*line, *this);
        if (answer && !closing_) send(*answer);
    }
    // The other clients get their turn; a congested client is called again when it has read.
    if (!closing_ && !waits_ && !congested()) {
        again_ = server_.loop_.onTimer(std::chrono::nanoseconds{0}, [this] { advance(); });
    }
}

void ControlServer::Client::advance() {
    answerSome();
    if (closing_ && evbuffer_get_length(output()) == 0) return server_.close(*this);
    const bool take = !closing_ && !atEnd_ && !congested();
    (take ? bufferevent_enable : bufferevent_disable)(stream_.get(), EV_READ);
}

void ControlServer::Client::computed(const std::string& line) {
    waits_ = false;
    if (!closing_) send(line);
    advance();
}

// Whether the client reads no more either; one may close its sending side alone.
bool ControlServer::Client::hungUp() {
    pollfd peer{bufferevent_getfd(stream_.get()), 0, 0};
    return poll(&peer, 1, 0) == 1 && (peer.revents & POLLHUP) != 0;
}

void ControlServer::Client::happened(short what) {
    if ((what & (BEV_EVENT_ERROR | BEV_EVENT_TIMEOUT)) != 0 || (waits_ && hungUp()))
        return server_.close(*this);
    atEnd_ = true;
    advance();
}

ControlServer::ControlServer(EventLoop& loop, std::string path, RequestHandler& handler,
                             Limits limits)
    : loop_(loop),
      handler_(handler),
      limits_(limits),
      listener_(loop, std::move(path), [this](int descriptor) { accepted(descriptor); }) {}

ControlServer::~ControlServer() {
    while (!clients_.empty()) close(*clients_.front());
}

void ControlServer::accepted(int descriptor) {
    if (clients_.size() < limits_.clients || makeRoom()) {
        clients_.push_back(std::make_unique<Client>(*this, descriptor));
        return;
    }
    // The line fits the empty send buffer of a new connection.
    const std::string line = refusal("too many clients") + "\n";
    ::send(descriptor, line.data(), line.size(), MSG_NOSIGNAL);
    ::close(descriptor);
}

bool ControlServer::makeRoom() {
    const auto idle = std::ranges::find_if(clients_, [](const auto& each) { return each->idle(); });
    if (idle == clients_.end()) return false;
    close(**idle);
    return true;
}

void ControlServer::used(const Client& client) {
    const auto place =
        std::ranges::find_if(clients_, [&](const auto& each) { return each.get() == &client; });
    clients_.splice(clients_.end(), clients_, place);
}

void ControlServer::close(Client& client) {
    handler_.sessionClosed(client);
    for (Computation& each : computations_)
        if (each.client == &client) {
            each.client = nullptr;
            each.copy->kill();
        }
    if (client.watches()) --watchers_;
    std::erase_if(clients_, [&](const auto& each) { return each.get() == &client; });
}

std::optional<std::string> ControlServer::answer(const std::string& line, Client& client) {
    Json reply = Json::object();
    bool later = false;
    std::string text = lineOf(reply, [&] {
        const Json request = parseJson(line);
        if (!request.is_object()) throw RequestError("a request must be an object");
        if (const auto id = request.find("id"); id != request.end()) reply["id"] = *id;
        const auto op = request.find("op");
        if (op == request.end() || !op->is_string()) throw RequestError("op: a string is required");
        loop_.settle();
        Answer answer = handler_.handle(*op, request, client);
        // The first value of a watch is written before the events that pending tasks cause.
        if (*op != "watch") loop_.settle();
        if (answer.later) {
            compute(answer, reply, client);
            later = true;
        }
        return answer;
    });
    return later ? std::nullopt : std::optional(std::move(text));
}

void ControlServer::compute(Answer answer, const Json& reply, Client& client) {
    if (computations_.size() == limits_.computations)
        throw RequestError("busy with another request that takes long; try again later");
    Computation& computation = computations_.emplace_back(&client, reply);
    const auto work = [&] {
        return lineOf(computation.reply, [&] {
            answer.value = answer.later();
            return std::move(answer);
        });
    };
    try {
        computation.copy.emplace(loop_, work, [this, &computation](ProcessCopy::Result result) {
            computed(computation, std::move(result));
        });
    } catch (...) {
        computations_.pop_back();
        throw;
    }
    client.computationStarted();
}

void ControlServer::computed(Computation& computation, ProcessCopy::Result result) {
    const auto place = std::ranges::find(computations_, &computation,
                                         [](const Computation& each) { return &each; });
    std::list<Computation> ended;
    ended.splice(ended.end(), computations_, place);
    if (!computation.client) return;
    if (!result.error.empty())
        result.text = lineOf(computation.reply, [&]() -> Answer {
            throw RequestError("the computation of the answer " + result.error);
        });
    computation.client->computed(result.text);
}

}  // namespace Agent

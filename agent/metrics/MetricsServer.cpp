#include "agent/metrics/MetricsServer.h"

#include <event2/buffer.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "agent/base/SecretFile.h"

namespace Agent {

namespace {

void refuse(evhttp_request* request, int code, const char* reason) {
    evhttp_send_error(request, code, reason);
}

// Takes the same time for every wrong token of the right length.
bool equalSecrets(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    unsigned char difference = 0;
    for (size_t i = 0; i < a.size(); ++i) difference |= static_cast<unsigned char>(a[i] ^ b[i]);
    return difference == 0;
}

bool carries(evhttp_request* request, const std::string& token) {
    const char* value =
        evhttp_find_header(evhttp_request_get_input_headers(request), "Authorization");
    constexpr std::string_view scheme = "Bearer ";
    const std::string_view text = value ? value : "";
    return text.starts_with(scheme) && equalSecrets(text.substr(scheme.size()), token);
}

}  // namespace

std::string readToken(const std::string& file) {
    std::ifstream in(file);
    std::string token;
    if (!in) throw Vel::Error(file + ": " + std::strerror(errno));
    if (const std::string mode = openMode(file); !mode.empty())
        throw Vel::Error(file + ": a token must be readable by its owner only (mode 0600, not " +
                         mode + ")");
    if (!std::getline(in, token) || token.empty())
        throw Vel::Error(file + ": its first line must be the token");
    return token;
}

MetricsServer::MetricsServer(EventLoop& loop, const std::string& runDir, const MetricsPort& port,
                             MetricSources sources)
    : loop_(loop),
      sources_(std::move(sources)),
      token_(port.token),
      socket_(runDir + "/" + metricsSocketName),
      local_(makeHttp([](evhttp_request* request, void* self) {
          static_cast<MetricsServer*>(self)->handle(request, true);
      })),
      remote_(makeHttp([](evhttp_request* request, void* self) {
          static_cast<MetricsServer*>(self)->handle(request, false);
      })) {
    sources_.counters = NavShard::navCountersFactory("navCounters");
    sources_.counters->lbProfileCounterControlIs(
        NavShard::LbProfileCounterControl::reader(Shard::Namespace(runDir)));
    const int descriptor = listeningSocket(socket_);
    if (listen(descriptor, SOMAXCONN) != 0 ||
        !evhttp_accept_socket_with_handle(local_.get(), descriptor))
        throw Vel::Error(socket_ + ": " + std::strerror(errno));
    if (port.address.empty()) return;
    const size_t colon = port.address.rfind(':');
    std::string host = port.address.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
    const unsigned long number = colon == std::string::npos
                                     ? 0
                                     : std::strtoul(port.address.c_str() + colon + 1, nullptr, 10);
    if (number == 0 || number > 65535)
        throw Vel::Error(port.address + ": expected an address and a port, such as 127.0.0.1:9473");
    if (!evhttp_bind_socket_with_handle(remote_.get(), host.c_str(), static_cast<uint16_t>(number)))
        throw Vel::Error(port.address + ": " + std::strerror(errno));
}

MetricsServer::~MetricsServer() {
    while (!answers_.empty()) end(answers_.begin());
    unlink(socket_.c_str());
}

MetricsServer::Http MetricsServer::makeHttp(void (*handle)(evhttp_request*, void*)) {
    Http http(evhttp_new(loop_.base()), evhttp_free);
    if (!http) throw std::bad_alloc();
    evhttp_set_timeout(http.get(), timeout);
    evhttp_set_max_headers_size(http.get(), 8192);
    evhttp_set_max_body_size(http.get(), 0);
    evhttp_set_gencb(http.get(), handle, this);
    return http;
}

void MetricsServer::handle(evhttp_request* request, bool trusted) {
    loop_.wake();
    const char* path = evhttp_uri_get_path(evhttp_request_get_evhttp_uri(request));
    if (!trusted && !carries(request, token_)) {
        evhttp_add_header(evhttp_request_get_output_headers(request), "WWW-Authenticate", "Bearer");
        return refuse(request, 401, "a bearer token is required");
    }
    if (!path || std::strcmp(path, "/metrics") != 0) return refuse(request, HTTP_NOTFOUND, nullptr);
    if (evhttp_request_get_command(request) != EVHTTP_REQ_GET)
        return refuse(request, HTTP_BADMETHOD, nullptr);
    if (answers_.size() == maxAnswers) return refuse(request, HTTP_SERVUNAVAIL, "too many answers");
    answer(request);
}

void MetricsServer::answer(evhttp_request* request) {
    const auto at = answers_.emplace(answers_.end(), request, sources_);
    evhttp_add_header(evhttp_request_get_output_headers(request), "Content-Type",
                      "text/plain; version=0.0.4; charset=utf-8");
    evhttp_connection_set_closecb(
        evhttp_request_get_connection(request),
        [](evhttp_connection* closed, void* self) {
            std::erase_if(static_cast<MetricsServer*>(self)->answers_, [&](const Answer& answer) {
                return evhttp_request_get_connection(answer.request) == closed;
            });
        },
        this);
    evhttp_send_reply_start(request, HTTP_OK, "OK");
    step(at);
}

void MetricsServer::step(std::list<Answer>::iterator at) {
    evhttp_request* const request = at->request;
    const bool left = !evhttp_request_get_connection(request);
    if (const auto piece = left ? std::nullopt : at->scrape.next()) {
        at->turn = loop_.onTimer({}, [this, at] { step(at); });
        const std::unique_ptr<evbuffer, void (*)(evbuffer*)> buffer(evbuffer_new(), evbuffer_free);
        evbuffer_add(buffer.get(), piece->data(), piece->size());
        if (!piece->empty()) evhttp_send_reply_chunk(request, buffer.get());
        return;
    }
    end(at);
}

// A request whose collector has left has no connection any more; ending it frees it.
void MetricsServer::end(std::list<Answer>::iterator at) {
    evhttp_request* const request = at->request;
    if (evhttp_connection* connection = evhttp_request_get_connection(request))
        evhttp_connection_set_closecb(connection, nullptr, nullptr);
    answers_.erase(at);
    evhttp_send_reply_end(request);
}

}  // namespace Agent

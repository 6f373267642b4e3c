// Answers `GET /metrics` over HTTP: on a Unix socket in the run directory, and on a TCP port if one
// is given, where a token is required ("Authorization: Bearer TOKEN", RFC 6750). Owned by
// HostAgent; used on the event thread, which serves other events between the pieces of an answer.
//
// Anything else is answered with 404, 405 or 401. A collector that does not read, or goes away,
// costs its own connection only; beyond maxAnswers at once, the answer is 503.
#pragma once

#include <event2/http.h>

#include <list>
#include <memory>
#include <string>

#include "agent/metrics/Scrape.h"
#include "agent/shell/Listener.h"

namespace Agent {

inline constexpr const char* metricsSocketName = "metrics.sock";

struct MetricsPort {
    std::string address;  // "127.0.0.1:9473" or "[::1]:9473"; empty: no port
    std::string token;    // required of collectors on the port; not empty
};

// The first line of a file of mode 0600 or less. Throws Vel::Error with the reason.
std::string readToken(const std::string& file);

class MetricsServer {
  public:
    static constexpr size_t maxAnswers = 8;
    static constexpr int timeout = 10;  // seconds without progress that end a connection

    // `runDir`: where the socket is created, and the counters are found (so `sources` needs none).
    // Throws Vel::Error if an address cannot be listened on.
    MetricsServer(EventLoop& loop, const std::string& runDir, const MetricsPort& port,
                  MetricSources sources);
    ~MetricsServer();
    MetricsServer(const MetricsServer&) = delete;
    MetricsServer& operator=(const MetricsServer&) = delete;

  private:
    struct Answer {
        Answer(evhttp_request* to, const MetricSources& from) : request(to), scrape(from) {}

        evhttp_request* const request;
        Scrape scrape;
        EventLoop::Registration turn;
    };
    using Http = std::unique_ptr<evhttp, void (*)(evhttp*)>;

    Http makeHttp(void (*handle)(evhttp_request*, void*));
    void handle(evhttp_request* request, bool trusted);
    void answer(evhttp_request* request);
    void step(std::list<Answer>::iterator at);
    void end(std::list<Answer>::iterator at);

    EventLoop& loop_;
    MetricSources sources_;
    const std::string token_;
    const std::string socket_;
    Http local_, remote_;
    std::list<Answer> answers_;
};

}  // namespace Agent

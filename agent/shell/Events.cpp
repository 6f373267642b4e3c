#include "agent/shell/Events.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>

#include "agent/shell/AgentTrace.h"

namespace Agent {

namespace {

constexpr std::array<const char*, Event::kinds> kinds = {"agent", "configuration", "interface",
                                                         "path", "choice"};
static_assert(Event::kinds == static_cast<size_t>(Event::Kind::choice) + 1);

Json orNull(const std::string& text) {
    return text.empty() ? Json() : Json(text);
}

Json toJson(const Event& event) {
    return {{"time", timeText(event.time)},     {"kind", kinds[static_cast<size_t>(event.kind)]},
            {"subject", orNull(event.subject)}, {"event", event.text},
            {"cause", orNull(event.cause)},     {"by", orNull(event.author)}};
}

}  // namespace

std::string timeText(WallTime time) {
    const auto millis = std::chrono::floor<std::chrono::milliseconds>(time.time_since_epoch());
    const auto count = millis.count();
    const time_t seconds = static_cast<time_t>(count / 1000);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    const std::string fraction = std::to_string(1000 + count % 1000).substr(1);
    return text.data() + ("." + fraction) + "Z";
}

Events::Events(std::string file) : file_(std::move(file)) {
    if (file_.empty()) return;
    std::ifstream in(file_);
    for (std::string line; std::getline(in, line);) {
        try {
            Json event = parseJson(line);
            if (event.is_object() && event.contains("event")) ring_.push_back(std::move(event));
        } catch (const JsonError&) {
            // The last line of a process that was killed while it wrote.
        }
        if (ring_.size() > capacity) ring_.pop_front();
    }
}

void Events::add(const Event& event) {
    if (ring_.size() == capacity) ring_.pop_front();
    ring_.push_back(toJson(event));
    ++counts_[static_cast<size_t>(event.kind)];
    if (!file_.empty()) write(ring_.back());
}

std::vector<std::pair<const char*, uint64_t>> Events::counts() const {
    std::vector<std::pair<const char*, uint64_t>> counts;
    for (size_t i = 0; i < kinds.size(); ++i) counts.emplace_back(kinds[i], counts_[i]);
    return counts;
}

Json Events::newest(size_t last) const {
    const size_t count = std::min(last, ring_.size());
    Json events = Json::array();
    for (size_t i = ring_.size() - count; i < ring_.size(); ++i) events.push_back(ring_[i]);
    return events;
}

// Appends. The file is replaced by the ring at first, since it may end in half a line, and again
// whenever it has grown to twice the ring.
void Events::write(const Json& event) {
    const bool anew = room_ == 0;
    const std::string target = anew ? file_ + ".new" : file_;
    std::string text;
    if (anew)
        for (const Json& each : ring_) text += dumpLine(each) + "\n";
    else
        text = dumpLine(event) + "\n";
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | (anew ? O_TRUNC : O_APPEND);
    const int descriptor = open(target.c_str(), flags, 0640);
    const bool written = descriptor >= 0 && ::write(descriptor, text.data(), text.size()) ==
                                                static_cast<ssize_t>(text.size());
    const int reason = errno;
    if (descriptor >= 0) close(descriptor);
    if (!written) return fail(std::strerror(reason));
    if (anew && rename(target.c_str(), file_.c_str()) != 0) return fail(std::strerror(errno));
    room_ = anew ? capacity : room_ - 1;
}

void Events::fail(const std::string& reason) {
    DUOLOG(agentTrace, 3, "events are no longer written to ", std::exchange(file_, {}), ": ",
           reason);
}

}  // namespace Agent

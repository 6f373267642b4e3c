// What has happened lately: changes of paths, interfaces, choices and the configuration, each with
// its cause and its author. A bounded ring in memory; with a file, also across restarts.
//
// Owned by the Host; used on the event thread. Writing to the file never stops the agent: if it
// fails, the reason is logged once and the ring goes on without it.
#pragma once

#include <array>
#include <chrono>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "agent/base/Json.h"

namespace Agent {

using WallTime = std::chrono::system_clock::time_point;

// In UTC with milliseconds (RFC 3339): "2026-11-22T03:10:22.123Z".
std::string timeText(WallTime time);

struct Event {
    enum class Kind { agent, configuration, interface, path, choice };
    static constexpr size_t kinds = 5;

    Kind kind;
    std::string subject;  // "Path3 203.0.113.1 -> 198.51.100.2 (internet, 10.255.0.2)"
    std::string text;     // "is down"
    std::string cause;    // "interface wan1 is down"; empty: not known, or in the text
    std::string author;   // of a change of the configuration: "uid 0, pid 4711"; empty: the agent
    WallTime time = std::chrono::system_clock::now();
};

class Events {
  public:
    static constexpr size_t capacity = 1000;

    // `file`: where events are kept, one JSON object a line; none if empty. Those of an earlier
    // process are read from it. A line that is not an event is skipped.
    explicit Events(std::string file = {});

    void add(const Event& event);
    // The newest `last`, oldest first: {"time","kind","subject","event","cause","by"}, null where
    // there is nothing to say.
    Json newest(size_t last) const;
    // How many were added in this process, by kind.
    std::vector<std::pair<const char*, uint64_t>> counts() const;

  private:
    void write(const Json& event);
    void fail(const std::string& reason);

    std::string file_;  // empty: none, or given up
    size_t room_ = 0;   // how many lines may be appended before the file is written anew
    std::deque<Json> ring_;
    std::array<uint64_t, Event::kinds> counts_{};
};

}  // namespace Agent

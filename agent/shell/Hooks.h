// Runs the operator's program at each transition of a path, a site or an application:
//
//     PROGRAM path Path3 down
//
// docs/hooks.md describes its arguments and its environment. The event thread only starts programs
// and hears of their ends; at most atOnce run at a time, the transitions of one subject one after
// the other. Those that wait are bounded: the oldest are dropped, so that the program learns the
// latest state. A program that takes too long is killed with its process group.
//
// Owned by HostAgent; used on the event thread.
#pragma once

#include <array>
#include <chrono>
#include <deque>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "agent/shell/EventLoop.h"

namespace Agent {

struct Transition {
    std::string kind;   // "path", "site", "application"
    std::string name;   // "Path3", "10.255.0.2", "voice"
    std::string state;  // "up", "down"; of an application also "moved"
    // More for the environment: {"NAV_CAUSE", "interface wan1 is down"}. Those of NAV_SITE and
    // NAV_VRF tell applications of one name apart.
    std::vector<std::pair<std::string, std::string>> details;
};

class Hooks {
  public:
    static constexpr size_t atOnce = 4;
    static constexpr size_t mostWaiting = 1024;
    // What has become of transitions. A program succeeds if it ends with status 0, and fails if it
    // ends otherwise or cannot be started.
    enum class Result { succeeded, failed, killed, dropped };
    static constexpr std::array resultNames = {"succeeded", "failed", "killed", "dropped"};

    // `program`: none if empty. `limit`: how long it may run.
    Hooks(EventLoop& loop, std::string program, std::chrono::seconds limit);
    // Kills what is running.
    ~Hooks();
    Hooks(const Hooks&) = delete;
    Hooks& operator=(const Hooks&) = delete;

    void add(Transition transition);
    uint64_t count(Result result) const { return counts_[static_cast<size_t>(result)]; }

  private:
    struct Run;

    void startSome();
    void start(const Transition& transition);
    void ended(Run& run);
    void overdue(Run& run);
    void report(const Transition& transition, Result result, const std::string& reason);
    bool isRunning(const Transition& transition) const;

    EventLoop& loop_;
    const std::string program_;
    const std::chrono::seconds limit_;
    std::deque<Transition> waiting_;  // at most mostWaiting
    std::list<Run> running_;          // at most atOnce, no two of one subject
    std::array<uint64_t, resultNames.size()> counts_{};
    uint64_t droppedInARow_ = 0;  // since none waited
};

}  // namespace Agent

// The running configuration of an agent: the only way to change it, its history, and the return to
// the one before if a new one is not confirmed in time. Owned by the Host; used on the event
// thread, after start-up by the requests of the control socket and by signals.
//
// While a configuration waits for its confirmation, every other change is refused, so that a return
// undoes this one change and nothing else. If the agent stops meanwhile, the next one starts with
// the configuration before, if the history is kept in a file, else with its own files.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "agent/model/Transaction.h"
#include "agent/shell/Events.h"
#include "agent/shell/History.h"

namespace Agent {

// What is done, and by whom, for the history: {"load", "uid 0, pid 4711"}.
struct Change {
    std::string text, author;
    bool isEdit = false;  // one of a series that makes one entry of the history
};

class Configuration {
  public:
    using Warnings = std::vector<std::string>;

    struct Surroundings {
        const Ip::Status& interfaces;   // their addresses
        std::function<void()> changed;  // called after each change, when it is complete
        Loom::TaskScheduler& scheduler;
        Events& events;
        std::string historyFile;  // none if empty
    };
    Configuration(RunningConfig running, Surroundings around);

    const RunningConfig& running() const { return running_; }

    // Each makes a change, completely or not at all, and returns warnings about it. Throws
    // TreeError if the configuration would be invalid, RequestError while another one waits for its
    // confirmation.
    Warnings edit(const Change& change, const std::function<void(Tree&)>& make);
    Warnings load(const Change& change, WantedConfig wanted);
    // The same, and returns to the present configuration after this time without confirm().
    Warnings loadUnconfirmed(const Change& change, WantedConfig wanted, std::chrono::seconds time);

    // Keep the configuration that waits for it, or return to the one before. Throw RequestError if
    // none waits.
    void confirm();
    void giveBack(const Change& change);

    // What applying a transaction would be refused for, or warned about.
    Warnings check(const Transaction& transaction) const {
        return transaction.check(&around_.interfaces);
    }

    // A row for each entry, oldest first: {"number","time","by","change","state","until"}. The
    // state of the newest may be "running" or "unconfirmed", otherwise it is null.
    Json history() const;
    // {"number","time","by","change","changes"}: what the change with this number changed. Throws
    // RequestError if the history has no such entry, also the next.
    Json history(uint64_t number) const;
    WantedConfig fromHistory(uint64_t number) const;
    // The number of the entry before one that was not confirmed when an earlier agent stopped.
    std::optional<uint64_t> interrupted() const;

  private:
    struct Unconfirmed {
        WantedConfig before;
        std::string author;
        std::chrono::seconds time;
        WallTime until;
    };

    Warnings commit(const Change& change, Transaction& transaction, bool unconfirmed = false);
    void record(const Change& change, const WantedConfig& wanted, bool unconfirmed);
    void returnUnconfirmed();
    void refuseUnconfirmed() const;
    WantedConfig copyRunning() const;
    const History::Entry& entry(uint64_t number) const;

    const RunningConfig running_;
    const Surroundings around_;
    History history_;
    bool recorded_ = false;  // the newest entry is the running configuration
    std::optional<Unconfirmed> unconfirmed_;
    Loom::Timer return_;
};

}  // namespace Agent

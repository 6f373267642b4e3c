// The last configurations that ran, each with its author and the time: in memory and, with a file,
// also across restarts. The file contains keys, so that its mode is 0600.
//
// Owned by the Configuration; used on the event thread. A file that cannot be read or written never
// stops the agent: the reason is logged, and the history goes on in memory.
#pragma once

#include <deque>
#include <string>

#include "agent/base/Json.h"
#include "platform/loom/TaskScheduler.h"

namespace Agent {

class History {
  public:
    // How many are listed. One more is kept, with which the oldest is compared.
    static constexpr size_t capacity = 10;
    // Time between a change and its writing to the file: a series of changes is written once.
    static constexpr Loom::Duration writingTime = std::chrono::seconds(1);

    struct Entry {
        uint64_t number = 0;       // from 1, also across restarts
        std::string time;          // RFC 3339, UTC
        std::string author;        // "uid 0, pid 4711"
        std::string change;        // "load"
        size_t edits = 0;          // how many edits the author made in a row; 0: not an edit
        bool unconfirmed = false;  // only of the newest
        Json paths, forwarding;    // whole, with keys; null: none
    };

    // `file`: none if empty. The entries of an earlier process are read from it; a file with any
    // other content is left as it is.
    History(std::string file, Loom::TaskScheduler& scheduler);
    ~History();

    // Oldest first.
    const std::deque<Entry>& entries() const { return entries_; }
    // The newest is replaced if both are edits of one author; else the new one gets a number.
    void add(Entry entry);
    void confirm();

    // Writes the file now, if anything has changed.
    void write();

  private:
    void changed();
    void fail(const std::string& reason);

    std::string file_;  // empty: none, or given up
    std::deque<Entry> entries_;
    Loom::Timer writing_;
};

}  // namespace Agent

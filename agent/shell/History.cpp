#include "agent/shell/History.h"

#include <unistd.h>

#include "agent/base/SaveFile.h"
#include "agent/shell/AgentTrace.h"

namespace Agent {

namespace {

constexpr int fileVersion = 1;

Json toJson(const History::Entry& entry) {
    return {{"number", entry.number}, {"time", entry.time},
            {"author", entry.author}, {"change", entry.change},
            {"edits", entry.edits},   {"unconfirmed", entry.unconfirmed},
            {"paths", entry.paths},   {"forwarding", entry.forwarding}};
}

History::Entry fromJson(const Json& json) {
    return {json.at("number"), json.at("time"),        json.at("author"), json.at("change"),
            json.at("edits"),  json.at("unconfirmed"), json.at("paths"),  json.at("forwarding")};
}

}  // namespace

History::History(std::string file, Loom::TaskScheduler& scheduler)
    : file_(std::move(file)), writing_(scheduler, Loom::call<&History::write>(*this)) {
    if (file_.empty() || access(file_.c_str(), F_OK) != 0) return;
    try {
        const Json kept = parseJson(readFile(file_));
        if (kept.at("version") != fileVersion) throw JsonError("written by another version");
        for (const Json& entry : kept.at("entries")) entries_.push_back(fromJson(entry));
    } catch (const std::exception& error) {
        entries_.clear();
        fail(error.what());
    }
}

History::~History() {
    if (writing_.armed()) write();
}

void History::add(Entry entry) {
    const bool goesOn = !entries_.empty() && entry.edits > 0 && entries_.back().edits > 0 &&
                        entry.author == entries_.back().author;
    if (goesOn) {
        entry.number = entries_.back().number;
        entry.edits += entries_.back().edits;
        entries_.pop_back();
    } else {
        entry.number = entries_.empty() ? 1 : entries_.back().number + 1;
    }
    if (!entries_.empty()) entries_.back().unconfirmed = false;
    entries_.push_back(std::move(entry));
    if (entries_.size() > capacity + 1) entries_.pop_front();
    changed();
}

void History::confirm() {
    if (!entries_.empty()) entries_.back().unconfirmed = false;
    changed();
}

void History::changed() {
    if (!file_.empty() && !writing_.armed()) writing_.armIn(writingTime);
}

void History::write() {
    writing_.disarm();
    if (file_.empty()) return;
    Json entries = Json::array();
    for (const Entry& entry : entries_) entries.push_back(toJson(entry));
    try {
        saveFile(file_, dumpLine({{"version", fileVersion}, {"entries", std::move(entries)}}),
                 SaveMode::ownerOnly, Sync::no);
    } catch (const std::exception& error) {
        fail(error.what());
    }
}

void History::fail(const std::string& reason) {
    DUOLOG(agentTrace, 3, "the history of the configuration is not kept in ", file_, ": ",
           LongText{reason});
    file_.clear();
}

}  // namespace Agent

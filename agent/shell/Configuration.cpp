#include "agent/shell/Configuration.h"

#include <algorithm>

#include "agent/model/DatumJson.h"
#include "agent/shell/AgentTrace.h"
#include "agent/shell/ControlServer.h"

namespace Agent {

namespace {

// The configurations of an entry, which an agent of another version may have written.
WantedConfig readEntry(const History::Entry& entry) {
    try {
        return {entry.paths.is_null() ? nullptr : readConfig(entry.paths),
                entry.forwarding.is_null() ? nullptr : readForwarding(entry.forwarding)};
    } catch (const TreeError& error) {
        throw RequestError("entry " + std::to_string(entry.number) +
                           " of the history: " + error.what());
    }
}

std::vector<Difference> compare(const WantedConfig& before, const WantedConfig& after) {
    std::vector<Difference> differences;
    const auto emptyPaths = Vel::make<Nav::NavCliConfig>(configName);
    const auto emptyForwarding = makeForwarding();
    addDifferences(differences, before.paths ? *before.paths : *emptyPaths,
                   after.paths ? *after.paths : *emptyPaths, std::string("/") + configName);
    addDifferences(differences, before.forwarding ? *before.forwarding : *emptyForwarding,
                   after.forwarding ? *after.forwarding : *emptyForwarding,
                   std::string("/") + forwardingName);
    return differences;
}

Json rowOf(const History::Entry& entry) {
    const std::string more =
        entry.edits > 1 ? ", the last of " + std::to_string(entry.edits) + " changes" : "";
    return {{"number", entry.number},
            {"time", entry.time},
            {"by", entry.author},
            {"change", entry.change + more}};
}

}  // namespace

Configuration::Configuration(RunningConfig running, Surroundings around)
    : running_(running),
      around_(std::move(around)),
      history_(around_.historyFile, around_.scheduler),
      return_(around_.scheduler, Loom::call<&Configuration::returnUnconfirmed>(*this)) {}

Configuration::Warnings Configuration::edit(const Change& change,
                                            const std::function<void(Tree&)>& make) {
    Transaction transaction(running_);
    make(transaction.tree());
    return commit(change, transaction);
}

Configuration::Warnings Configuration::load(const Change& change, WantedConfig wanted) {
    Transaction transaction(running_, std::move(wanted));
    return commit(change, transaction);
}

Configuration::Warnings Configuration::loadUnconfirmed(const Change& change, WantedConfig wanted,
                                                       std::chrono::seconds time) {
    WantedConfig before = copyRunning();
    Transaction transaction(running_, std::move(wanted));
    Warnings warnings = commit(change, transaction, true);
    unconfirmed_ = {std::move(before), change.author, time,
                    std::chrono::system_clock::now() + time};
    return_.armIn(time);
    return warnings;
}

Configuration::Warnings Configuration::commit(const Change& change, Transaction& transaction,
                                              bool unconfirmed) {
    refuseUnconfirmed();
    Warnings warnings = check(transaction);
    const bool differs = !transaction.differences().empty();
    // Before it is applied: an agent that crashes by an unconfirmed configuration returns from it.
    if (differs || unconfirmed) record(change, transaction.wanted(), unconfirmed);
    transaction.apply();
    around_.changed();
    return warnings;
}

// A start with the configuration of the last stop makes no entry.
void Configuration::record(const Change& change, const WantedConfig& wanted, bool unconfirmed) {
    const auto asBefore = [&] {
        if (history_.entries().empty()) return false;
        try {
            auto differences = compare(readEntry(history_.entries().back()), wanted);
            std::erase_if(differences, [](const Difference& each) {
                return each.path.ends_with("/configVersion");
            });
            return differences.empty();
        } catch (const RequestError&) {
            return false;
        }
    };
    if (!std::exchange(recorded_, true) && !unconfirmed && asBefore()) return history_.confirm();
    history_.add({0, timeText(std::chrono::system_clock::now()), change.author, change.text,
                  change.isEdit ? size_t{1} : 0, unconfirmed, wholeConfig(wanted.paths.get()),
                  wholeConfig(wanted.forwarding.get())});
    if (unconfirmed) history_.write();
}

void Configuration::refuseUnconfirmed() const {
    if (unconfirmed_)
        throw RequestError("the configuration loaded by " + unconfirmed_->author +
                           " waits for its confirmation: \"navctl confirm\" keeps it, \"navctl "
                           "confirm --no\" returns to the one before");
}

void Configuration::confirm() {
    if (!unconfirmed_) throw RequestError("no configuration waits for its confirmation");
    unconfirmed_.reset();
    return_.disarm();
    history_.confirm();
    history_.write();
}

void Configuration::giveBack(const Change& change) {
    if (!unconfirmed_) throw RequestError("no configuration waits for its confirmation");
    return_.disarm();
    WantedConfig before = std::move(std::exchange(unconfirmed_, {})->before);
    load(change, std::move(before));
    history_.write();
}

void Configuration::returnUnconfirmed() {
    const std::string cause =
        "not confirmed within " + std::to_string(unconfirmed_->time.count()) + " s";
    try {
        giveBack({"return: " + cause, "nav-agent"});
        DUOLOG(agentTrace, 4, "configuration returned to the one before: ", LongText{cause});
        around_.events.add(
            {Event::Kind::configuration, "configuration", "returned to the one before", cause, {}});
    } catch (const std::exception& error) {
        DUOLOG(agentTrace, 3, "configuration not returned: ", LongText{error.what()});
        around_.events.add(
            {Event::Kind::configuration, "configuration", "return refused", error.what(), {}});
    }
}

WantedConfig Configuration::copyRunning() const {
    return {copyConfig(running_.paths),
            running_.forwarding ? copyForwarding(*running_.forwarding) : nullptr};
}

Json Configuration::history() const {
    Json rows = Json::array();
    const auto& entries = history_.entries();
    for (size_t i = entries.size() > History::capacity ? 1 : 0; i < entries.size(); ++i) {
        Json row = rowOf(entries[i]);
        const bool newest = i + 1 == entries.size() && recorded_;
        row["state"] = !newest ? Json() : unconfirmed_ ? "unconfirmed" : "running";
        row["until"] = newest && unconfirmed_ ? Json(timeText(unconfirmed_->until)) : Json();
        rows.push_back(std::move(row));
    }
    return rows;
}

Json Configuration::history(uint64_t number) const {
    const History::Entry& after = entry(number);
    Json row = rowOf(after);
    const bool first = number == history_.entries().front().number;
    row["changes"] =
        toJson(compare(first ? WantedConfig{} : readEntry(entry(number - 1)), readEntry(after)));
    return row;
}

const History::Entry& Configuration::entry(uint64_t number) const {
    const auto found = std::ranges::find(history_.entries(), number, &History::Entry::number);
    if (found == history_.entries().end())
        throw RequestError("entry " + std::to_string(number) + " of the history: not found");
    return *found;
}

// An entry of an agent that forwarded may be loaded by one that does not.
WantedConfig Configuration::fromHistory(uint64_t number) const {
    WantedConfig wanted = readEntry(entry(number));
    if (!running_.forwarding) wanted.forwarding = nullptr;
    return wanted;
}

std::optional<uint64_t> Configuration::interrupted() const {
    const auto& entries = history_.entries();
    if (recorded_ || entries.size() < 2 || !entries.back().unconfirmed) return {};
    return entries[entries.size() - 2].number;
}

}  // namespace Agent

#include "platform/trace/Duolog.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

namespace Duolog {
namespace {

constinit Facility* firstFacility = nullptr;
constinit int levelOfNewFacilities = Facility::defaultLevel;

std::function<void(const Ringlog::Line&)>& sink() {
    static std::function<void(const Ringlog::Line&)> instance;
    return instance;
}
constinit std::vector<std::string>* capture = nullptr;

void updateDelivers() {
    auto& attention = Ringlog::state.attention;
    attention = static_cast<uint8_t>(attention & ~Ringlog::delivers);
    if (sink() || capture) attention |= Ringlog::delivers;
}

}  // namespace

Facility::Facility(const char* name)
    : level_(levelOfNewFacilities), name_(name), next_(std::exchange(firstFacility, this)) {}

bool levelIs(std::string_view name, int level) {
    const bool all = name == "*";
    bool found = all;
    if (all) levelOfNewFacilities = level;
    for (Facility* facility = firstFacility; facility; facility = facility->next()) {
        if (!all && facility->name() != name) continue;
        facility->levelIs(level);
        found = true;
    }
    return found;
}

std::vector<std::pair<std::string_view, int>> facilities() {
    std::vector<std::pair<std::string_view, int>> result;
    for (Facility* facility = firstFacility; facility; facility = facility->next()) {
        result.emplace_back(facility->name(), facility->level());
    }
    std::sort(result.begin(), result.end());
    return result;
}

void textSinkIs(std::function<void(const Ringlog::Line&)> newSink) {
    sink() = std::move(newSink);
    updateDelivers();
}

void textSinkIs(int fd) {
    if (fd < 0) return textSinkIs(nullptr);
    textSinkIs([fd](const Ringlog::Line& record) {
        const std::string text = record.line + '\n';
        // A line that cannot be written is lost; its record is still in the ring.
        [[maybe_unused]] const ssize_t written = write(fd, text.data(), text.size());
    });
}

void captureIs(std::vector<std::string>* texts) {
    capture = texts;
    updateDelivers();
}

void deliver() {
    struct RingOnly {
        RingOnly() { Ringlog::state.attention &= ~Ringlog::delivers; }
        ~RingOnly() { updateDelivers(); }
    } const ringOnly;
    const Ringlog::Line newest = Ringlog::newest();
    if (capture) capture->emplace_back(newest.text());
    if (const auto current = sink()) current(newest);
}

}  // namespace Duolog

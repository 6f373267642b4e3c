#include "agent/linux/quality/ProbeSession.h"

#include <algorithm>
#include <bit>

namespace Agent::Linux {

namespace {

using Loom::Duration;
using Loom::Instant;
using std::chrono::milliseconds;
using namespace std::chrono_literals;

constexpr unsigned maxFlaps = 6;

// What an answer may take longer than the one before, so that it still counts as in time.
Duration marginOf(Duration interval) {
    return std::clamp<Duration>(interval / 20, 1ms, 5ms);
}

// Twice as many as can be unsettled, so that a late answer is recognised.
size_t ringSize(const ProbeValues& values, Duration lostAfter) {
    const Duration interval = milliseconds(values.interval);
    return std::bit_ceil(2 * (static_cast<size_t>(lostAfter / interval) + values.multiplier + 2));
}

}  // namespace

ProbeSession::ProbeSession(const ProbeValues& values, uint16_t sessionId, Instant start,
                           const std::optional<Memory>& before)
    : values_(values),
      interval_(milliseconds(values.interval)),
      lostAfter_(std::max(patience, interval_ * values.multiplier)),
      margin_(marginOf(interval_)),
      sessionId_(sessionId),
      key_(values.key.text.empty() ? std::nullopt : std::optional<StampKey>(values.key.text)),
      probes_(ringSize(values, lostAfter_)),
      nextSend_(start),
      window_(std::max<size_t>(values.window / values.interval, 1)) {
    if (!before) return;
    elapsed_ = before->elapsed;
    if (before->isDead)
        state_ = PathLiveness::dead;
    else
        answered_ = next_ - 1;
}

std::optional<ProbeSession::Memory> ProbeSession::memory() const {
    if (state_ == PathLiveness::notChecked && !answered_) return {};
    return Memory{state_ == PathLiveness::dead, elapsed_};
}

bool ProbeSession::knows(uint32_t sequence) const {
    const uint32_t age = next_ - sequence;  // 0, or huge, of one that was never sent
    return age >= 1 && age <= std::min<uint64_t>(counts_.sent, probes_.size());
}

// An answer repeats the probe's timestamp, which nobody can guess who has not seen it.
bool ProbeSession::isOurs(const SenderPacket& packet) const {
    return knows(packet.sequence) && probe(packet.sequence).stamp == packet.timestamp;
}

SenderPacket ProbeSession::send(Instant now, std::chrono::nanoseconds sinceEpoch) {
    if (next_ - unsettled_ == probes_.size()) settleOldest();
    const SenderPacket packet{
        .sequence = next_++, .timestamp = ntpStamp(sinceEpoch), .sessionId = sessionId_};
    probe(packet.sequence) = {.sentAt = now, .stamp = packet.timestamp};
    ++counts_.sent;
    // Probes whose time has passed are left out.
    nextSend_ += interval_ * (std::max(now - nextSend_, Duration(0)) / interval_ + 1);
    return packet;
}

void ProbeSession::sendFailed() {
    --next_;
    --counts_.sent;
    ++counts_.refused;
    probe(next_) = {};
}

void ProbeSession::transmitted(uint32_t sequence, Instant at) {
    if (knows(sequence) && !probe(sequence).answered) probe(sequence).sentAt = at;
}

bool ProbeSession::receive(std::span<const std::byte> bytes, Instant at) {
    const StampDefect defect = defectOf(bytes, key());
    if (defect != StampDefect::none) {
        ++(defect == StampDefect::tooShort ? counts_.malformed : counts_.notAuthentic);
        return false;
    }
    const ReflectorPacket packet = readReflector(bytes, key());
    // A reflector that knows only RFC 8762 returns zero in place of the session id.
    const bool session = packet.sender.sessionId == sessionId_ || packet.sender.sessionId == 0;
    if (!session || !isOurs(packet.sender)) return ++counts_.unexpected, false;
    const uint32_t sequence = packet.sender.sequence;
    Probe& probe = this->probe(sequence);
    if (probe.answered) return ++counts_.duplicate, false;
    // Without the time that the reflector took, unless its clock was set meanwhile.
    const Duration elapsed = std::max(at - probe.sentAt, Duration(0));
    const Duration taken = between(packet.received, packet.timestamp, packet.errorEstimate);
    probe.answered = true;
    probe.roundTrip = taken >= Duration(0) && taken <= elapsed ? elapsed - taken : elapsed;
    probe.answer = packet.sequence;
    const bool settled = static_cast<int32_t>(sequence - unsettled_) < 0;
    ++(settled ? counts_.late : counts_.answered);
    if (!answered_ || static_cast<int32_t>(sequence - *answered_) > 0)
        answered_ = sequence, elapsed_ = elapsed;
    if (state_ == PathLiveness::dead && !goodSince_) goodSince_ = at;
    if (state_ != PathLiveness::notChecked) return false;
    state_ = PathLiveness::alive;
    return true;
}

bool ProbeSession::portUnreachable(std::span<const std::byte> bytes) {
    if (bytes.size() < (key_ ? authenticatedStampSize : stampSize)) return false;
    if (!isOurs(readSender(bytes, key()))) return ++counts_.unexpected, false;
    answered_.reset();
    goodSince_.reset();
    return std::exchange(state_, PathLiveness::notChecked) != PathLiveness::notChecked;
}

// When the last of `multiplier` probes in a row without an answer will have had its time; empty if
// it has not been sent.
std::optional<Instant> ProbeSession::missedAt() const {
    if (!answered_) return {};
    const uint32_t sequence = *answered_ + values_.multiplier;
    if (!knows(sequence)) {
        const bool sent = static_cast<int32_t>(next_ - sequence) > 0;
        return sent ? std::optional(Instant{}) : std::nullopt;
    }
    return probe(sequence).sentAt + elapsed_ + margin_;
}

Instant ProbeSession::nextJudgement() const {
    Instant next = Instant::max();
    const auto missed = missedAt();
    if (missed && (state_ != PathLiveness::dead || goodSince_)) next = *missed;
    if (goodSince_) next = std::min(next, *goodSince_ + returnDelay());
    return next;
}

Duration ProbeSession::returnDelay() const {
    return milliseconds(values_.upDelay) * (1 << flaps_);
}

void ProbeSession::settleOldest() {
    const Probe& oldest = probe(unsettled_++);
    if (oldest.answered) return window_.answered(oldest.roundTrip, oldest.answer);
    window_.lost();
    ++counts_.lost;
}

// Gives the window the fates that are known, in the order of sending.
void ProbeSession::settle(Instant now) {
    while (unsettled_ != next_) {
        const Probe& oldest = probe(unsettled_);
        if (!oldest.answered && now - oldest.sentAt < lostAfter_) return;
        settleOldest();
    }
}

void ProbeSession::die(Instant now) {
    state_ = PathLiveness::dead;
    const bool isFlap = returned_ && now - *returned_ < calm * milliseconds(values_.upDelay);
    flaps_ = isFlap ? std::min(flaps_ + 1, maxFlaps) : 0;
}

bool ProbeSession::judge(Instant now) {
    settle(now);
    const auto missed = missedAt();
    const bool isSilent = missed && now >= *missed;
    if (state_ != PathLiveness::dead) return isSilent && (die(now), true);
    if (!goodSince_) return false;
    if (isSilent) return goodSince_.reset(), false;
    if (now - *goodSince_ < returnDelay()) return false;
    state_ = PathLiveness::alive;
    goodSince_.reset();
    returned_ = now;
    return true;
}

void ProbeSession::figures(PathQuality& quality) const {
    window_.figures(quality);
    quality.state = state_;
}

}  // namespace Agent::Linux

// The probes of one path: which packet is next, what became of each, and whether the path is alive.
// Knows no socket and no clock. The owner passes what it sends and receives, with the kernel's
// timestamps where the kernel gave some, so that a process that runs late changes no figure.
//
// A path is dead once `multiplier` probes in a row were really sent and had the time of the last
// round trip, and a little more, to be answered, but were not: in the usual case, `multiplier`
// intervals after the last answer. A process that stood still has sent nothing, so that it judges
// nobody.
//
// A dead path is alive again when it has answered for `upDelay` without another such gap. The delay
// doubles each time that a path dies within 300 times `upDelay` of its return, up to 64 times of
// it.
#pragma once

#include <optional>
#include <vector>

#include "agent/linux/quality/StampPacket.h"
#include "agent/linux/quality/Window.h"
#include "agent/model/ForwardingConfig.h"
#include "platform/loom/Clock.h"

namespace Agent::Linux {

// Probes and answers so far.
struct ProbeCounts {
    uint64_t sent = 0;
    uint64_t refused = 0;   // by the kernel, when they were to be sent
    uint64_t answered = 0;  // in time
    uint64_t lost = 0;
    uint64_t late = 0;          // answered after they had been counted as lost
    uint64_t duplicate = 0;     // answers to answered probes, replayed ones too
    uint64_t unexpected = 0;    // answers to no probe
    uint64_t malformed = 0;     // too short
    uint64_t notAuthentic = 0;  // not signed with the key
};

class ProbeSession {
  public:
    // An answer that takes longer comes too late to count.
    static constexpr Loom::Duration patience = std::chrono::seconds(1);
    static constexpr int calm = 300;  // times upDelay

    // What is known of a path beyond one session. A path that has answered before is expected to
    // answer, and one that was dead stays so.
    struct Memory {
        bool isDead = false;
        Loom::Duration elapsed{};  // from a probe to its answer

        bool operator==(const Memory&) const = default;
    };

    // REQUIRES: the interval is not 0. The first probe is due at `start`.
    ProbeSession(const ProbeValues& values, uint16_t sessionId, Loom::Instant start,
                 const std::optional<Memory>& before = {});
    // Empty while nobody is known to answer.
    std::optional<Memory> memory() const;

    const ProbeValues& values() const { return values_; }
    const StampKey* key() const { return key_ ? &*key_ : nullptr; }

    Loom::Instant nextSend() const { return nextSend_; }
    // The next probe, which is about to be sent. `sinceEpoch`: the time of day.
    SenderPacket send(Loom::Instant now, std::chrono::nanoseconds sinceEpoch);
    // It could not be sent.
    void sendFailed();
    // When a probe was really sent.
    void transmitted(uint32_t sequence, Loom::Instant at);

    // An answer of the path's destination; returns whether the state has changed.
    bool receive(std::span<const std::byte> packet, Loom::Instant at);
    // The destination answers that nobody listens: the path is not checked until somebody does.
    // `probe`: the quoted packet. Returns whether the state has changed.
    bool portUnreachable(std::span<const std::byte> probe);

    // When to call judge() at the latest.
    Loom::Instant nextJudgement() const;
    // Returns whether the state has changed.
    // REQUIRES: what was received until `now` has been passed.
    bool judge(Loom::Instant now);

    PathLiveness state() const { return state_; }
    void figures(PathQuality& quality) const;
    const ProbeCounts& counts() const { return counts_; }

  private:
    struct Probe {
        Loom::Instant sentAt{};
        uint64_t stamp = 0;
        bool answered = false;
        Loom::Duration roundTrip{};
        uint32_t answer = 0;  // the reflector's sequence number
    };

    Probe& probe(uint32_t sequence) { return probes_[sequence & (probes_.size() - 1)]; }
    const Probe& probe(uint32_t sequence) const { return probes_[sequence & (probes_.size() - 1)]; }
    // Whether the ring still has the probe.
    bool knows(uint32_t sequence) const;
    bool isOurs(const SenderPacket& packet) const;
    std::optional<Loom::Instant> missedAt() const;
    void settle(Loom::Instant now);
    void settleOldest();
    void die(Loom::Instant now);
    Loom::Duration returnDelay() const;

    const ProbeValues values_;
    const Loom::Duration interval_, lostAfter_, margin_;
    const uint16_t sessionId_;
    const std::optional<StampKey> key_;

    std::vector<Probe> probes_;  // the latest, by sequence; a power of two
    uint32_t next_ = 0;          // sequence of the next probe
    uint32_t unsettled_ = 0;     // the first whose fate the window does not have
    Loom::Instant nextSend_;
    Window window_;
    ProbeCounts counts_;

    PathLiveness state_ = PathLiveness::notChecked;
    // The highest sequence that was answered; empty while nobody is known to answer. The time from
    // that probe to its answer.
    std::optional<uint32_t> answered_;
    Loom::Duration elapsed_{};
    std::optional<Loom::Instant> goodSince_;  // of a dead path that answers
    std::optional<Loom::Instant> returned_;   // last
    unsigned flaps_ = 0;                      // doublings of upDelay
};

}  // namespace Agent::Linux

// Answers to the probes of others (the Session-Reflector of RFC 8762), which keeps state: each
// session has sequence numbers of its own, so that the sender can tell where packets were lost.
// Knows no socket.
//
// Only peers are answered, no packet twice, with as many octets as they sent, and not more than
// `maxRate` packets a second each, so that nobody can use it to reach or flood somebody else. What
// is answered is checked against the key first: forged packets do not use up a peer's rate. If
// strangers are answered, they are one peer in all of this, together.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "agent/linux/quality/ProbeSocket.h"
#include "agent/linux/quality/StampPacket.h"
#include "platform/loom/Clock.h"
#include "platform/vel/Types.h"

namespace Agent::Linux {

// Packets that were sent to the reflector.
struct ReflectorCounts {
    uint64_t answered = 0;
    uint64_t stranger = 0;  // not from a peer
    uint64_t malformed = 0;
    uint64_t notAuthentic = 0;
    uint64_t replayed = 0;  // or duplicated
    uint64_t limited = 0;   // beyond the rate, or the sessions, of their peer
};

class Reflector {
  public:
    static constexpr double maxRate = 1000;  // packets a second of one peer
    static constexpr size_t maxSessions = 16;
    // A session that is idle longer gives way to a new one.
    static constexpr Loom::Duration idle = std::chrono::seconds(60);

    struct Pair {
        Netz::IpGenAddr local, peer;
        auto operator<=>(const Pair&) const = default;
    };
    // Whose probes are answered, with the key of each, empty for none. Until a peer uses a new key,
    // the one before is good, too, so that the two sides can be given it one after the other.
    // `strangers`: the key of all others, if they are answered.
    void peersAre(const std::map<Pair, Vel::Secret>& peers,
                  const std::optional<Vel::Secret>& strangers = {});

    // The answer to a datagram that came to `local`, in `buffer`; empty if it gets none. REQUIRES:
    // the buffer has the datagram's size. `sinceEpoch`: the time of day, as in the datagram.
    std::span<const std::byte> answer(const Netz::IpGenAddr& local, const ProbeDatagram& datagram,
                                      std::span<std::byte> buffer, Loom::Instant now,
                                      std::chrono::nanoseconds sinceEpoch);

    const ReflectorCounts& counts() const { return counts_; }

  private:
    struct Session {
        Pair ends;
        uint16_t port = 0, id = 0;
        uint32_t next = 0;  // sequence of the next answer
        // The highest sequence received, the 64 up to it as bits, and the latest timestamp.
        uint32_t highest = 0;
        uint64_t received = 0;
        uint64_t latest = 0;
        Loom::Instant usedAt{};

        bool takes(const SenderPacket& packet, bool authenticated);
    };
    struct Peer {
        explicit Peer(const Vel::Secret& secret);
        void secretIs(const Vel::Secret& value);

        Vel::Secret secret;
        std::optional<StampKey> key;
        std::optional<std::optional<StampKey>> before;  // good until the key is used; may be none
        std::vector<Session> sessions;
        double credit = maxRate / 10;  // packets that may come at once
        Loom::Instant creditAt{};

        const StampKey* keyOf(std::span<const std::byte> packet);
        bool isWithinRate(Loom::Instant now);
        Session* session(const Pair& ends, uint16_t port, uint16_t id, Loom::Instant now);
    };

    std::map<Pair, Peer> peers_;
    std::optional<Peer> strangers_;
    ReflectorCounts counts_;
};

}  // namespace Agent::Linux

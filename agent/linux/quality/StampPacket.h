// Packets of the Simple Two-way Active Measurement Protocol (RFC 8762) with the session identifier
// of RFC 8972, as values, and their form on the wire. Times stay in the form of the wire here: what
// the agent needs is the difference of two stamps of the same clock.
#pragma once

#include <nettle/hmac.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace Agent::Linux {

// Sizes of a packet without extensions. Both directions have the same (RFC 8762, 4.2 and 4.3).
inline constexpr size_t stampSize = 44, authenticatedStampSize = 112;

// A key of authenticated packets: HMAC-SHA-256 over the first 96 octets, truncated to 128 bits (RFC
// 8762, 4.4).
class StampKey {
  public:
    explicit StampKey(std::string_view secret);

    // REQUIRES: the packet has at least authenticatedStampSize octets.
    void sign(std::span<std::byte> packet) const;
    bool signedIt(std::span<const std::byte> packet) const;  // in constant time

  private:
    void digest(std::span<const std::byte> packet, uint8_t* to) const;
    hmac_sha256_ctx keyed_;
};

// Of the clock of the party that sent a packet (RFC 4656, 4.1.2; the bit Z is that of RFC 8186).
struct ErrorEstimate {
    static constexpr uint16_t ptpFormat = 0x4000;  // Z: timestamps of IEEE 1588, otherwise of NTP
    // Stamps of this agent: NTP format, a clock not known to be synchronised, 2^-20 s.
    static constexpr uint16_t own = 12 << 8 | 1;
};

struct SenderPacket {
    uint32_t sequence = 0;
    uint64_t timestamp = 0;
    uint16_t errorEstimate = ErrorEstimate::own;
    uint16_t sessionId = 0;  // 0: none

    bool operator==(const SenderPacket&) const = default;
};

struct ReflectorPacket {
    uint32_t sequence = 0;   // the reflector's own if it keeps state, else the sender's
    uint64_t timestamp = 0;  // when the answer was sent
    uint16_t errorEstimate = ErrorEstimate::own;
    uint64_t received = 0;  // when the sender's packet came
    SenderPacket sender;    // what is answered; the session id is that of both
    uint8_t senderTtl = 0;  // of the sender's packet when it came

    bool operator==(const ReflectorPacket&) const = default;
};

enum class StampDefect { none, tooShort, notAuthentic };
// Whether a packet can be read. Without a key it is taken for an unauthenticated one.
StampDefect defectOf(std::span<const std::byte> packet, const StampKey* key);

// REQUIRES: defectOf() is none for the same arguments.
SenderPacket readSender(std::span<const std::byte> packet, const StampKey* key);
ReflectorPacket readReflector(std::span<const std::byte> packet, const StampKey* key);

// Write the base packet and return its octets, signed if there is a key; what follows in `to`
// stays. REQUIRES: `to` has the size of such a packet.
std::span<std::byte> write(const SenderPacket& packet, std::span<std::byte> to,
                           const StampKey* key);
std::span<std::byte> write(const ReflectorPacket& packet, std::span<std::byte> to,
                           const StampKey* key);

// Makes of the extensions behind a base packet what a reflector that knows none of them answers:
// each type-length-value is returned with its flag U set, and M if it does not fit (RFC 8972, 4).
void refuseExtensions(std::span<std::byte> extensions);

// A time since the Unix epoch as an NTP timestamp (RFC 5905, 6).
uint64_t ntpStamp(std::chrono::nanoseconds sinceEpoch);
// From one stamp to a later one of the same clock.
std::chrono::nanoseconds between(uint64_t earlier, uint64_t later, uint16_t errorEstimate);

}  // namespace Agent::Linux

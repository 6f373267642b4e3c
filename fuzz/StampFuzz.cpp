// STAMP packets: any bytes are read within their bounds, what was read is written and read again
// the same, and nobody is answered with more than was sent. The first byte chooses whether packets
// are authenticated, and whether they are signed first.
#include <vector>

#include "agent/linux/quality/ProbeSession.h"
#include "agent/linux/quality/Reflector.h"
#include "platform/netz/Assert.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Agent::Linux;
    if (size == 0) return 0;
    const bool authenticated = data[0] & 1;
    const Vel::Secret secret{authenticated ? "secret" : ""};
    const StampKey key(secret.text);
    const auto input = std::as_bytes(std::span(data + 1, size - 1));
    std::vector<std::byte> packet(input.begin(), input.end()), buffer(packet.size());
    if (authenticated && (data[0] & 2) && packet.size() >= authenticatedStampSize) key.sign(packet);
    const StampKey* const used = authenticated ? &key : nullptr;
    if (defectOf(packet, used) == StampDefect::none) {
        const SenderPacket sent = readSender(packet, used);
        VEL_ASSERT(readSender(write(sent, buffer, used), used) == sent, "a changed probe");
        const ReflectorPacket answer = readReflector(packet, used);
        VEL_ASSERT(readReflector(write(answer, buffer, used), used) == answer, "a changed answer");
        between(answer.received, answer.timestamp, answer.errorEstimate);
    }
    const Netz::IpGenAddr here, there = Netz::IpGenAddr::fromV4(1);
    Reflector reflector;
    reflector.peersAre({{{here, there}, secret}});
    const ProbeDatagram datagram{.peer = there, .port = 7, .data = packet};
    const auto answer =
        reflector.answer(here, datagram, buffer, Loom::Instant{}, std::chrono::seconds(1));
    VEL_ASSERT(answer.empty() || answer.size() == packet.size(), "an answer of another size");
    ProbeSession session({100, 3, 1000, 0, 0, secret, {}}, 1, Loom::Instant{});
    session.send(Loom::Instant{}, std::chrono::seconds(1));
    session.receive(packet, Loom::Instant{});
    session.portUnreachable(packet);
    return 0;
}

// STAMP packets: any bytes are read within their bounds, and what was read is written and read
// again the same. The first byte chooses whether packets are authenticated; then they are signed
// first.
#include <algorithm>
#include <vector>

#include "agent/linux/quality/StampPacket.h"
#include "platform/netz/Assert.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Agent::Linux;
    if (size == 0) return 0;
    static const StampKey secret("secret");
    const StampKey* const key = data[0] & 1 ? &secret : nullptr;
    const auto input = std::as_bytes(std::span(data + 1, size - 1));
    std::vector<std::byte> packet(input.begin(), input.end());
    if (key && packet.size() >= authenticatedStampSize) {
        if (data[0] & 2) key->sign(packet);
    }
    if (defectOf(packet, key) == StampDefect::none) {
        std::vector<std::byte> again(packet.size());
        const SenderPacket sent = readSender(packet, key);
        VEL_ASSERT(readSender(write(sent, again, key), key) == sent, "a changed probe");
        const ReflectorPacket answer = readReflector(packet, key);
        VEL_ASSERT(readReflector(write(answer, again, key), key) == answer, "a changed answer");
        between(answer.received, answer.timestamp, answer.errorEstimate);
    }
    refuseExtensions(packet);
    return 0;
}

// What charon says: any bytes, in pieces, are read within their bounds or refused, and what was read
// is written and read again the same. The first byte is the size of the pieces.
#include "agent/linux/ipsec/Sas.h"
#include "agent/linux/ipsec/Vici.h"
#include "platform/netz/Assert.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Agent::Linux;
    if (size == 0) return 0;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    Vici::Stream stream;
    try {
        for (size_t at = 0; at < bytes.size(); at += data[0] + 1) {
            stream.append(bytes.substr(at, data[0] + 1));
            while (const auto packet = stream.next()) {
                const std::string again = Vici::encode(*packet);
                VEL_ASSERT(Vici::decode(std::string_view(again).substr(4)) == *packet,
                           "a changed packet");
                sasOf(packet->message);
                reasonIn(Vici::text(packet->message, "msg"));
            }
        }
    } catch (const Vici::Error&) {
    }
    return 0;
}

#include "agent/linux/kernel/Xfrm.h"

#include <arpa/inet.h>

namespace Agent::Linux {

namespace {

bool hasKey(const Message& message) {
    for (const NetlinkAttribute& attribute : attributesAfter<xfrm_usersa_info>(message))
        if (attribute.type == XFRMA_ALG_AEAD || attribute.type == XFRMA_ALG_CRYPT ||
            attribute.type == XFRMA_ALG_AUTH || attribute.type == XFRMA_ALG_AUTH_TRUNC)
            return true;
    return false;
}

uint32_t reqidOf(const Message& policy) {
    for (const NetlinkAttribute& attribute : attributesAfter<xfrm_userpolicy_info>(policy))
        if (attribute.type == XFRMA_TMPL)
            if (const auto wanted = readAs<xfrm_user_tmpl>(attribute.data)) return wanted->reqid;
    return 0;
}

}  // namespace

uint32_t XfrmState::spi() const {
    return ntohl(id.spi);
}

XfrmObjects Xfrm::read(uint32_t first, uint32_t count) {
    XfrmObjects objects;
    const auto isOurs = [&](uint32_t reqid) { return reqid - first < count; };
    const auto dump = [&](uint16_t type, const auto& take) {
        socket_.dump(
            [&](MessageWriter& writer, uint32_t sequence) {
                writer.begin(type, NLM_F_DUMP, sequence, xfrm_usersa_id{});
            },
            take);
    };
    dump(XFRM_MSG_GETSA, [&](const Message& message) {
        const auto state = message.header<xfrm_usersa_info>();
        if (message.type != XFRM_MSG_NEWSA || !state || !isOurs(state->reqid) || !hasKey(message))
            return;
        objects.states.push_back(
            {{state->id.daddr, state->id.spi, state->family, state->id.proto}, state->reqid});
    });
    dump(XFRM_MSG_GETPOLICY, [&](const Message& message) {
        const auto policy = message.header<xfrm_userpolicy_info>();
        if (message.type != XFRM_MSG_NEWPOLICY || !policy || !isOurs(reqidOf(message))) return;
        objects.policies.push_back({{policy->sel, policy->index, policy->dir}, reqidOf(message)});
    });
    return objects;
}

void Xfrm::remove(const XfrmObjects& objects) {
    const auto write = [&](MessageWriter& writer, uint32_t sequence, size_t position) {
        if (position < objects.states.size())
            return writer.begin(XFRM_MSG_DELSA, NLM_F_ACK, sequence, objects.states[position].id);
        writer.begin(XFRM_MSG_DELPOLICY, NLM_F_ACK, sequence,
                     objects.policies[position - objects.states.size()].id);
    };
    socket_.exchange(objects.size(), write, [](size_t, const Message&) {});
}

}  // namespace Agent::Linux

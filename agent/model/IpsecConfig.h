// The IPsec profiles that path groups name: how IKEv2 and ESP protect the tunnel between the two
// addresses of a path. The operator writes them into a file; the IPsec service of the Linux
// platform reads them. What each attribute means, with units and examples: docs/ipsec.md.
//
// Secrets and private keys are taken only from files that their owner alone can read.
#pragma once

#include <string>
#include <vector>

#include "agent/base/Json.h"
#include "nav/config/NavCliConfig.h"
#include "platform/vel/Entity.h"

namespace Agent {

class IpsecProfileConfig : public Vel::Entity {
    VEL_ENTITY(IpsecProfileConfig, Vel::Name, name)
    // Algorithms in the notation of strongSwan, separated by commas, the preferred first.
    VEL_ATTRIBUTE(Vel::String, proposals, "aes256gcm16-prfsha384-ecp384")  // of IKE
    VEL_ATTRIBUTE(Vel::String, espProposals, "aes256gcm16-ecp384")
    VEL_ATTRIBUTE(Vel::String, localId, {})   // empty: the path's source address
    VEL_ATTRIBUTE(Vel::String, remoteId, {})  // empty: its destination; "%any": any
    // Either a key that both sides have, or certificates.
    VEL_ATTRIBUTE(Vel::Secret, presharedKey, {})
    VEL_ATTRIBUTE(Vel::String, certificate, {})  // files in PEM
    VEL_ATTRIBUTE(Vel::String, privateKey, {})
    VEL_SET(Vel::String, authority)                // whose certificates the peer may have
    VEL_ATTRIBUTE(Vel::U32, rekeyTime, 14400)      // s, of the IKE_SA
    VEL_ATTRIBUTE(Vel::U32, espRekeyTime, 3600)    // s, of the CHILD_SA
    VEL_ATTRIBUTE(Vel::U32, dpdDelay, 10)          // s of silence until the peer is asked
    VEL_ATTRIBUTE(Vel::U32, dpdTimeout, 10)        // s until a peer that does not answer is gone
    VEL_ATTRIBUTE(bool, encapsulateAlways, false)  // ESP in UDP also without a NAT on the way
};

class IpsecConfig : public Vel::Entity {
    VEL_ENTITY(IpsecConfig, Vel::Name, name)
    VEL_COLLECTION(Vel::Name, IpsecProfileConfig, profile)
};

// The entity's own name, the same in every agent, and that of its root.
inline constexpr const char* ipsecName = "ipsecConfig";

using IpsecPtr = Vel::Ptr<IpsecConfig>;

// One without profiles.
IpsecPtr makeIpsec();

// The profiles that a JSON text describes. Refuses profiles without or with two kinds of
// credentials, times out of range, algorithms and identities with characters that they cannot have.
// Throws JsonError with the line and the reason.
IpsecPtr readIpsecText(const std::string& text);
// The same of a file. Refuses also a file with secrets that others than its owner can read, and
// certificates and keys that cannot be read. Throws JsonError, without the file's name.
IpsecPtr readIpsecFile(const std::string& file);

// Profiles that path groups name and that are not configured.
std::vector<std::string> ipsecWarnings(const Nav::NavCliConfig& config, const IpsecConfig& ipsec);

}  // namespace Agent

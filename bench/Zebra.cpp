#include "bench/Zebra.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <bitset>
#include <csignal>
#include <cstring>
#include <thread>

namespace Bench {

namespace {

const char* const program = "/usr/lib/frr/zebra";
constexpr size_t headerBytes = 10;
// ZEBRA_HELLO, ZEBRA_NEXTHOP_REGISTER, ZEBRA_NEXTHOP_UPDATE
constexpr U32 hello = 18, nexthopRegister = 20, nexthopUpdate = 22;

std::string bigEndian(U32 value, size_t bytes) {
    std::string text(bytes, 0);
    for (; bytes > 0; value >>= 8) text[--bytes] = static_cast<char>(value);
    return text;
}
U32 numberAt(const std::string& message, size_t at, size_t bytes) {
    U32 value = 0;
    for (; bytes > 0; --bytes) value = value << 8 | static_cast<unsigned char>(message[at++]);
    return value;
}
std::string octets(const Netz::IpGenAddr& addr) {
    return {reinterpret_cast<const char*>(addr.data()), addr.size()};
}

// Gives the directory to the user as which zebra runs. Within a user namespace that user may not be
// known.
bool give(const RunDirectory& directory) {
    const passwd* const user = getpwnam("frr");
    return user && chown(directory.path().c_str(), user->pw_uid, user->pw_gid) == 0;
}

}  // namespace

std::string Zebra::refusal() {
    if (access(program, X_OK) != 0) return "package frr is not installed";
    if (!give(RunDirectory())) return "zebra has to change to its own user, which takes root";
    return "";
}

Zebra::Zebra(std::span<const Netz::IpGenAddr> nexthops) : tracked_(nexthops.size()) {
    if (!give(directory_)) std::abort();
    const std::string api = directory_.path() + "/api", pid = directory_.path() + "/pid";
    process_ = fork();
    if (process_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
        for (int descriptor : {0, 1, 2}) dup2(nowhere, descriptor);
        execl(program, program, "-z", api.c_str(), "-i", pid.c_str(), "--vty_socket",
              directory_.path().c_str(), "-P", "0", "-f", "/dev/null", nullptr);
        _exit(1);
    }
    socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval patience{5, 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (!connect()) return;
    // For protocol "srte" of instance and session 0, which receives only what it requests.
    send(hello, bigEndian(29, 1) + std::string(8, 0));
    std::string body;
    for (const Netz::IpGenAddr& nexthop :
         nexthops)  // not necessarily connected; the default route is accepted
        body += bigEndian(0x0001, 2) + bigEndian(1, 2) + bigEndian(AF_INET, 2) + bigEndian(32, 1) +
                octets(nexthop);
    send(nexthopRegister, body);
}

Zebra::~Zebra() {
    close(socket_);
    kill(process_, SIGTERM);
    waitpid(process_, nullptr, 0);
}

// zebra listens once it has read the kernel's tables.
bool Zebra::connect() {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    const std::string api = directory_.path() + "/api";
    std::memcpy(address.sun_path, api.c_str(), api.size());
    for (int attempt = 0; attempt < 500; ++attempt) {
        if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

void Zebra::send(U32 command, const std::string& body) {
    const std::string message = bigEndian(static_cast<U32>(headerBytes + body.size()), 2) +
                                bigEndian(254, 1) + bigEndian(6, 1) + bigEndian(0, 4) +
                                bigEndian(command, 2) + body;
    if (::send(socket_, message.data(), message.size(), MSG_NOSIGNAL) < 0) std::abort();
}

bool Zebra::receive(std::string& message) {
    char bytes[1 << 16];
    while (received_.size() < 2 || received_.size() < numberAt(received_, 0, 2)) {
        const ssize_t got = recv(socket_, bytes, sizeof bytes, 0);
        if (got <= 0) return false;
        received_.append(bytes, static_cast<size_t>(got));
    }
    message = received_.substr(0, numberAt(received_, 0, 2));
    received_.erase(0, message.size());
    return true;
}

// The body of an update is flags (4), SAFI (2) and the next hop as family (2), bits (1) and octets,
// followed by its resolution.
bool Zebra::follow(const Netz::IpGenAddr& gateway) {
    constexpr size_t lastOctetAt = headerBytes + 4 + 2 + 2 + 1 + 3;
    const std::string by = octets(gateway);
    std::bitset<256> seen;
    for (std::string message; seen.count() < tracked_;) {
        if (!receive(message)) return false;
        if (message.size() > lastOctetAt && numberAt(message, 8, 2) == nexthopUpdate &&
            message.find(by, lastOctetAt + 1) != std::string::npos)
            seen.set(numberAt(message, lastOctetAt, 1));
    }
    return true;
}

}  // namespace Bench

#include "agent/host/Postmortem.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/netz/Assert.h"
#include "platform/trace/Ringlog.h"

namespace Agent {
namespace {

std::string file;

void writeDown(const char* text, const char* source, int line) {
    std::fprintf(stderr, "nav-agent: %s:%d: assertion failed: %s\n", source, line, text);
    // One that fails while the records become text ends here as well.
    Vel::assertHandlerIs(nullptr);
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        std::fprintf(stderr, "nav-agent: no trace in %s: %s\n", file.c_str(), std::strerror(errno));
        return;
    }
    Ringlog::dump(fd);
    close(fd);
    std::fprintf(stderr, "nav-agent: what led there is in %s\n", file.c_str());
}

}  // namespace

void postmortemIs(const std::string& runDir) {
    file = runDir + "/" + postmortemName;
    Vel::assertHandlerIs(writeDown);
}

}  // namespace Agent

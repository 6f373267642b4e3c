#include "agent/host/Postmortem.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/netz/Assert.h"
#include "platform/trace/Ringlog.h"

namespace Agent {
namespace {

std::string file;
Log* log = nullptr;

// Written without waiting for the reader of standard error.
void say(const std::string& text) {
    log->write(2, "nav-agent: " + text);
}

void writeDown(const char* text, const char* source, int line) {
    say(std::string(source) + ":" + std::to_string(line) + ": assertion failed: " + text);
    // An assertion that fails while the records become text ends the process here as well.
    Vel::assertHandlerIs(nullptr);
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        say("no trace in " + file + ": " + std::strerror(errno));
        return;
    }
    Ringlog::dump(fd);
    close(fd);
    say("the trace is in " + file);
}

}  // namespace

void postmortemIs(const std::string& runDir, Log& where) {
    log = &where;
    file = runDir + "/" + postmortemName;
    Vel::assertHandlerIs(writeDown);
}

}  // namespace Agent

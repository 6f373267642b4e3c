#include "agent/base/SecretFile.h"

#include <sys/stat.h>

#include <cstdio>

namespace Agent {

std::string openMode(const std::string& file) {
    struct stat status {};
    if (stat(file.c_str(), &status) != 0 || (status.st_mode & 077) == 0) return {};
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
    return mode;
}

}  // namespace Agent

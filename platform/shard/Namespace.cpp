#include "platform/shard/Namespace.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "platform/netz/Error.h"
#include "platform/netz/Hash.h"

namespace Shard {

Namespace::Namespace(const std::string& runDirectory) {
    std::error_code error;
    const std::string path = std::filesystem::canonical(runDirectory, error).string();
    struct stat status {};
    if (!error && stat(path.c_str(), &status) != 0) {
        error = std::error_code(errno, std::system_category());
    }
    if (!error && !S_ISDIR(status.st_mode))
        error = std::make_error_code(std::errc::not_a_directory);
    if (error) throw Vel::Error("run directory '" + runDirectory + "': " + error.message());
    owner_ = status.st_uid;
    char text[32];
    std::snprintf(text, sizeof text, "/shard.%08x%08x.", Netz::hashBytes(path),
                  Netz::hashBytes(path + "/"));
    prefix_ = text;
}

std::string Namespace::segmentName(std::string_view map) const {
    const auto allowed = [](unsigned char c) {
        return std::isalnum(c) || c == '_' || c == '-' || c == '.';
    };
    if (map.empty() || map.size() > 64 || !std::all_of(map.begin(), map.end(), allowed)) {
        throw Vel::Error("shared map '" + std::string(map) + "': not a name for a map");
    }
    return prefix_ + std::string(map);
}

}  // namespace Shard

#include "platform/shard/Namespace.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <system_error>

#include "platform/netz/Error.h"

namespace Shard {

Namespace::Namespace(const std::string& runDirectory) {
    std::error_code error;
    directory_ = std::filesystem::canonical(runDirectory, error).string();
    struct stat status {};
    if (!error && stat(directory_.c_str(), &status) != 0) {
        error = std::error_code(errno, std::system_category());
    }
    if (!error && !S_ISDIR(status.st_mode))
        error = std::make_error_code(std::errc::not_a_directory);
    if (error) throw Vel::Error("run directory '" + runDirectory + "': " + error.message());
    owner_ = status.st_uid;
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) == (S_IRGRP | S_IXGRP)) readers_ = status.st_gid;
}

std::string Namespace::fileOf(std::string_view map) const {
    const auto allowed = [](unsigned char c) {
        return std::isalnum(c) || c == '_' || c == '-' || c == '.';
    };
    if (map.empty() || map.size() > 64 || !std::all_of(map.begin(), map.end(), allowed)) {
        throw Vel::Error("shared map '" + std::string(map) + "': invalid name");
    }
    return directory_ + "/shard." + std::string(map);
}

}  // namespace Shard

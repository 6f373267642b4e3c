#include "agent/base/SaveFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace Agent {

namespace {

constexpr int maxLinks = 40;  // as many as the kernel follows, path_resolution(7)

// An open descriptor, and the file to remove unless it has got its name.
class Output {
  public:
    Output(std::string shown, int descriptor, std::string temporary = {})
        : shown_(std::move(shown)), descriptor_(descriptor), temporary_(std::move(temporary)) {
        if (descriptor_ < 0) {
            temporary_.clear();
            check(false);
        }
    }
    ~Output() {
        if (descriptor_ >= 0) close(descriptor_);
        if (!temporary_.empty()) unlink(temporary_.c_str());
    }
    Output(const Output&) = delete;

    void write(std::string_view rest) {
        while (!rest.empty()) {
            const ssize_t count = ::write(descriptor_, rest.data(), rest.size());
            if (count < 0 && errno == EINTR) continue;
            check(count >= 0);
            rest.remove_prefix(static_cast<size_t>(count));
        }
    }
    void modeIs(mode_t mode) { check(fchmod(descriptor_, mode) == 0); }
    void likeFile(const struct stat& file) {
        // Only root may give a file away; the group is kept where that is permitted.
        if (fchown(descriptor_, file.st_uid, file.st_gid) != 0)
            (void)!fchown(descriptor_, static_cast<uid_t>(-1), file.st_gid);
        modeIs(file.st_mode & 07777);
    }
    void sync() { check(fsync(descriptor_) == 0); }
    void rename(const std::string& target) {
        check(::rename(temporary_.c_str(), target.c_str()) == 0);
        temporary_.clear();
    }

  private:
    void check(bool success) const {
        if (!success) throw std::system_error(errno, std::generic_category(), shown_);
    }

    const std::string shown_;
    const int descriptor_;
    std::string temporary_;
};

std::string followLinks(const std::string& name) {
    std::filesystem::path target = name;
    std::error_code failed;
    for (int i = 0; i < maxLinks && std::filesystem::is_symlink(target, failed); ++i)
        target = target.parent_path() / std::filesystem::read_symlink(target, failed);
    return target;
}

}  // namespace

void saveFile(const std::string& name, const std::string& content, SaveMode mode, Sync sync) {
    const std::string target = followLinks(name);
    struct stat present {};
    const bool exists = stat(target.c_str(), &present) == 0;
    const bool ownerOnly = mode == SaveMode::ownerOnly;
    if (exists && !S_ISREG(present.st_mode)) {
        if (ownerOnly)
            throw std::system_error(std::make_error_code(std::errc::permission_denied),
                                    name + ": keys are written into a regular file only");
        Output(name, open(target.c_str(), O_WRONLY | O_CLOEXEC)).write(content);
        return;
    }
    std::string temporary = target + ".XXXXXX";
    const int descriptor = mkostemp(temporary.data(), O_CLOEXEC);
    Output output(name, descriptor, temporary);
    output.write(content);
    if (ownerOnly) {
        output.modeIs(0600);
    } else if (exists) {
        output.likeFile(present);
    } else {
        const mode_t mask = umask(0);
        umask(mask);
        output.modeIs(0666 & ~mask);
    }
    if (sync == Sync::yes) output.sync();
    output.rename(target);
}

}  // namespace Agent

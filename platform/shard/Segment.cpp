#include "platform/shard/Segment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "platform/netz/Assert.h"
#include "platform/netz/Error.h"

namespace Shard {
namespace {

[[noreturn]] void fail(const std::string& map, const std::string& what, int error = 0) {
    const std::string cause = error ? ": " + std::generic_category().message(error) : "";
    throw Vel::Error("shared map '" + map + "': " + what + cause);
}

struct flock lockOf(short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

struct stat statusOf(int fd) {
    struct stat status {};
    VEL_ASSERT(fstat(fd, &status) == 0, "fstat(fd, &status) == 0");
    return status;
}

bool sameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Whether the name refers to this file.
bool named(const std::string& file, int fd) {
    struct stat status {};
    return lstat(file.c_str(), &status) == 0 && sameFile(status, statusOf(fd));
}

// Opens without waiting for the writer of a FIFO, a device, or the holder of a lease.
Descriptor openFile(const std::string& file, int access) {
    return Descriptor(open(file.c_str(), access | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

bool trusted(const struct stat& status, const Namespace& space) {
    return (status.st_uid == space.owner() || status.st_uid == 0) && S_ISREG(status.st_mode) &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// False if a reader has locked the file, which keeps writers out. Raises Vel::Error if a writer
// has.
bool lock(const std::string& map, int fd) {
    struct flock wanted = lockOf(F_WRLCK);
    if (fcntl(fd, F_OFD_SETLK, &wanted) == 0) return true;
    if (errno != EAGAIN && errno != EACCES) fail(map, "cannot lock it", errno);
    if (fcntl(fd, F_OFD_GETLK, &wanted) == 0 && wanted.l_type != F_WRLCK) return false;
    int32_t pid = 0;
    if (pread(fd, &pid, sizeof pid, offsetof(Identity, writerPid)) != sizeof pid) pid = 0;
    fail(map, "already has a writer (process " + std::to_string(pid) + ")");
}

// Removes whatever has the name and is not a segment to take over.
void clearName(const std::string& map, const std::string& file) {
    if (unlink(file.c_str()) == 0 || errno == ENOENT) return;
    const int error = errno;
    if (rmdir(file.c_str()) != 0) fail(map, "cannot replace " + file, error);
}

// The header's identity; empty, with the reason in `refusal`, if this code cannot work on the
// segment.
std::optional<Identity> identityOf(int fd, std::string& refusal) {
    Identity identity;
    const auto bytes = static_cast<uint64_t>(statusOf(fd).st_size);
    if (pread(fd, &identity, sizeof identity, 0) != sizeof identity) {
        refusal = "cut off within its header";
    } else if (identity.magic != magic) {
        refusal = "not a shared map";
    } else if (identity.layoutVersion != layoutVersion) {
        refusal = "has layout version " + std::to_string(identity.layoutVersion) + ", not " +
                  std::to_string(layoutVersion);
    } else if (!identity.geometry.sound()) {
        refusal = "has an impossible geometry";
    } else if (identity.geometry.totalBytes() != bytes) {
        refusal = "has " + std::to_string(bytes) + " bytes where its header needs " +
                  std::to_string(identity.geometry.totalBytes());
    } else {
        return identity;
    }
    return std::nullopt;
}

void* mapping(int fd, uint64_t bytes, bool writable) {
    const int access = writable ? PROT_READ | PROT_WRITE : PROT_READ;
    void* base = mmap(nullptr, bytes, access, MAP_SHARED | (writable ? MAP_POPULATE : 0), fd, 0);
    return base == MAP_FAILED ? nullptr : base;
}

std::string differences(const Shape& theirs, const Shape& ours) {
    const auto text = [](const Shape& s) {
        return std::to_string(s.keyBytes) + " bytes of key, " + std::to_string(s.valueBytes) +
               (s.list ? " bytes of list at most" : " bytes of value") + ", schema " +
               std::to_string(s.schema);
    };
    return "has " + text(theirs) + "; expected " + text(ours);
}

// Gives the readers' group access, and nobody else. A process that may not call fchown(2) at all
// can still write for its own group.
void giveToReaders(const std::string& map, int fd, const Namespace& space) {
    const auto group = space.readers();
    struct stat status {};
    const bool theirs = group && fstat(fd, &status) == 0 && status.st_gid == *group;
    if (group && !theirs && fchown(fd, static_cast<uid_t>(-1), *group) != 0)
        fail(map, "cannot give it to group " + std::to_string(*group), errno);
    if (fchmod(fd, S_IRUSR | S_IWUSR | (group ? S_IRGRP : 0)) != 0)
        fail(map, "cannot set its mode", errno);
}

}  // namespace

Descriptor::~Descriptor() {
    if (fd_ >= 0) close(fd_);
}

Segment::Segment(std::string file, Descriptor fd, void* base, const Identity& identity, pid_t owner)
    : file_(std::move(file)),
      fd_(std::move(fd)),
      status_(statusOf(fd_.get())),
      identity_(identity),
      base_(base),
      guard_(std::in_place, base, identity.geometry.totalBytes(), owner != 0),
      view_(static_cast<std::byte*>(base), identity.geometry, identity.seed, guard_->hit()),
      owner_(owner) {}

Segment::~Segment() {
    guard_.reset();
    munmap(base_, identity_.geometry.totalBytes());
}

std::shared_ptr<Segment> Segment::own(const Namespace& space, const std::string& map,
                                      const Geometry& geometry) {
    const std::string file = space.fileOf(map);
    if (geteuid() != space.owner() && geteuid() != 0)
        fail(map, "the run directory " + space.directory() + " belongs to another user");
    for (int attempt = 0; attempt < 16; ++attempt) {
        Descriptor fd = openFile(file, O_RDWR);
        if (fd || errno != ENOENT) {
            const bool ours = fd && trusted(statusOf(fd.get()), space) && lock(map, fd.get());
            if (ours && !named(file, fd.get())) continue;  // unlinked before the lock was taken
            std::string refusal;
            const auto found = ours ? identityOf(fd.get(), refusal) : std::nullopt;
            if (found && found->geometry == geometry) {
                giveToReaders(map, fd.get(), space);
                return adopt(map, file, std::move(fd), *found);
            }
            if (ours) {
                const Phase quiesced = Phase::quiesced;  // readers look for the next segment
                [[maybe_unused]] const auto written =
                    pwrite(fd.get(), &quiesced, sizeof quiesced, offsetof(Header, phase));
            }
            clearName(map, file);
        }
        if (auto made = make(space, map, file, geometry)) return made;
    }
    fail(map, "other processes keep replacing " + file);
}

// Null if another process took the name first.
std::shared_ptr<Segment> Segment::make(const Namespace& space, const std::string& map,
                                       const std::string& file, const Geometry& geometry) {
    Descriptor fd(
        open(space.directory().c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!fd) fail(map, "cannot make a file in " + space.directory(), errno);
    giveToReaders(map, fd.get(), space);
    // Memory is allocated now: running out of it later would raise SIGBUS.
    const uint64_t bytes = geometry.totalBytes();
    if (const int error = posix_fallocate(fd.get(), 0, static_cast<off_t>(bytes)))
        fail(map, "cannot allocate " + std::to_string(bytes) + " bytes", error);
    lock(map, fd.get());
    Identity identity{magic, layoutVersion, 0, 0, geometry, 0};
    const auto random = getrandom(&identity.seed, sizeof identity.seed, 0);
    VEL_ASSERT(random == sizeof identity.seed, "random == sizeof identity.seed");
    auto segment = adopt(map, file, std::move(fd), identity);
    const std::string unnamed = "/proc/self/fd/" + std::to_string(segment->fd_.get());
    if (linkat(AT_FDCWD, unnamed.c_str(), AT_FDCWD, file.c_str(), AT_SYMLINK_FOLLOW) == 0)
        return segment;
    if (errno != EEXIST) fail(map, "cannot name it " + file, errno);
    return nullptr;
}

// Creates the writer's mapping of a segment whose lock is held and whose size is right.
std::shared_ptr<Segment> Segment::adopt(const std::string& map, const std::string& file,
                                        Descriptor fd, const Identity& found) {
    void* base = mapping(fd.get(), found.geometry.totalBytes(), true);
    if (!base) fail(map, "cannot map it", errno);
    Identity identity = found;
    identity.writerPid = getpid();
    auto& header = *static_cast<Header*>(base);
    std::memcpy(&header.identity, &identity, sizeof identity);
    header.phase.store(static_cast<uint32_t>(Phase::mounting), std::memory_order_release);
    header.writers.fetch_add(1, std::memory_order_release);
    std::shared_ptr<Segment> segment(new Segment(file, std::move(fd), base, identity, getpid()));
    segment->wakeReaders();
    return segment;
}

Descriptor Segment::find(const Namespace& space, const std::string& map) {
    const std::string file = space.fileOf(map);
    Descriptor fd = openFile(file, O_RDONLY);
    if (!fd && errno != ENOENT) fail(map, "cannot open " + file, errno);
    return fd;
}

std::shared_ptr<Segment> Segment::mount(const Namespace& space, const std::string& map,
                                        Descriptor fd, const Shape& shape, std::string& refusal) {
    refusal.clear();
    if (!trusted(statusOf(fd.get()), space)) {
        refusal = "does not belong to the run directory's owner, or others may write it";
        return nullptr;
    }
    const auto identity = identityOf(fd.get(), refusal);
    if (!identity) return nullptr;
    if (identity->geometry.shape != shape) {
        refusal = differences(identity->geometry.shape, shape);
        return nullptr;
    }
    void* base = mapping(fd.get(), identity->geometry.totalBytes(), false);
    if (!base) {
        refusal = "cannot be mapped: " + std::generic_category().message(errno);
        return nullptr;
    }
    return std::shared_ptr<Segment>(
        new Segment(space.fileOf(map), std::move(fd), base, *identity, 0));
}

bool Segment::owned() const {
    return owner_ == getpid();
}

Standing Segment::standing() const {
    struct stat now {};
    if (guard_->hit()) return Standing::cut;
    if (lstat(file_.c_str(), &now) != 0 || !sameFile(now, status_)) return Standing::unlinked;
    return now.st_size == status_.st_size ? Standing::named : Standing::cut;
}

bool Segment::writerAlive() const {
    if (owned()) return true;
    struct flock query = lockOf(F_RDLCK);
    return fcntl(fd_.get(), F_OFD_GETLK, &query) == 0 && query.l_type == F_WRLCK;
}

bool Segment::identityIntact() const {
    return std::memcmp(&view_.header().identity, &identity_, sizeof identity_) == 0;
}

void Segment::phaseIs(Phase phase) const {
    view_.header().phase.store(static_cast<uint32_t>(phase), std::memory_order_release);
}

void Segment::wakeReaders() const {
    static constexpr uint64_t one = 1;
    [[maybe_unused]] const auto written =
        pwrite(fd_.get(), &one, sizeof one, offsetof(Header, wakeup));
}

void Segment::unlink() const {
    if (named(file_, fd_.get())) ::unlink(file_.c_str());
}

void Segment::disown() {
    owner_ = 0;
    struct flock lock = lockOf(F_UNLCK);
    fcntl(fd_.get(), F_OFD_SETLK, &lock);
}

}  // namespace Shard
